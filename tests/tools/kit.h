// Targets and readers of frames for the tests of the tools.
#ifndef GX_TESTS_TOOLS_KIT_H
#define GX_TESTS_TOOLS_KIT_H

#include <netinet/in.h>

#include "common/control_frames.h"
#include "common/descriptor.h"
#include "support/io.h"
#include "support/temp_dir.h"

namespace gxtool {

using namespace gxtest;  // the tests of the tools use what all tests use

// True when that thread of this process sleeps: it has done all that it can do at present.
inline bool IsAsleep(pid_t thread) {
  return FileText("/proc/self/task/" + std::to_string(thread) + "/stat").find(") S ") != std::string::npos;
}

class LocalTarget {
 public:
  explicit LocalTarget(int type = SOCK_STREAM) : fd_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), length), 0);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(::listen(fd_.get(), 1024), 0);
    }
    EXPECT_EQ(::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address_), &length), 0);
  }

  std::string Address() const { return "127.0.0.1:" + std::to_string(port()); }
  int port() const { return ntohs(address_.sin_port); }
  int fd() const { return fd_.get(); }
  Descriptor Accept() const {
    return Descriptor(WaitFor(fd_.get(), POLLIN) ? ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

 private:
  Descriptor fd_;
  sockaddr_in address_{};
};

struct Frame {
  gxmod::ConnectionType type{};  // {}: the stream has ended
  std::uint32_t id = 0;
  std::string payload = {};

  bool operator==(const Frame&) const = default;
};

inline Frame ReadFrame(int fd) {
  const std::string bytes = ReadExactly(fd, gxmod::kFrameHeaderBytes);
  if (bytes.size() < gxmod::kFrameHeaderBytes) return {};
  const auto header = gxmod::DecodeFrameHeader(bytes.data());
  return {header.type, header.connection_id, ReadExactly(fd, header.length)};
}

// What has arrived from the other side.
struct Received {
  // Reads all frames that are there; returns false when there are none.
  bool TakeAll(int fd) {
    bool any = false;
    for (Frame frame; WaitFor(fd, POLLIN, 0) && (frame = ReadFrame(fd)).type != gxmod::ConnectionType{};) {
      any = true;
      if (frame.type == kAcknowledgementFrame) told = ReadAcknowledgement(frame.payload).value_or(told);
      if (frame.type == kPongFrame) ponged = true;
      if (frame.type == gxmod::ConnectionType::Data) {
        data += frame.payload;
        longest = std::max(longest, frame.payload.size());
      }
      if (!IsControlFrame(frame.type)) bytes += gxmod::kFrameHeaderBytes + frame.payload.size();
    }
    return any;
  }
  bool TakeUntil(int fd, auto condition) {
    return Eventually([&] { return TakeAll(fd), condition(); });
  }

  std::uint64_t bytes = 0;  // of the frames that are acknowledged
  std::string data;
  std::size_t longest = 0;  // the data of one frame
  Acknowledgement told;
  bool ponged = false;
};

}  // namespace gxtool

#endif  // GX_TESTS_TOOLS_KIT_H
