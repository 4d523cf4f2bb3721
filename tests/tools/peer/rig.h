// A peer on one end of a socket pair, the test on the other; and a name server for it.
#ifndef GX_TESTS_PEER_RIG_H
#define GX_TESTS_PEER_RIG_H

#include <sys/socket.h>

#include <csignal>
#include <map>

#include "common/control_frames.h"
#include "common/ready_line.h"
#include "peer/peer.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {

struct Frame {
  gxmod::ConnectionType type{};  // none of them: the stream has ended
  std::uint32_t id = 0;
  std::string payload = {};

  bool operator==(const Frame&) const = default;
};

class Rig {
 public:
  explicit Rig(PeerOptions options) {
    std::signal(SIGPIPE, SIG_IGN);
    std::tie(host_, peer_fd_) = MakeSocketPair();
    options.log = [this](LogLevel level, const std::string& line) {
      const std::lock_guard lock(mutex_);
      if (level <= LogLevel::kWarning) lines_.push_back(line);
    };
    peer_ = std::make_unique<Peer>(std::move(options), peer_fd_.get(), peer_fd_.get());
    thread_ = std::thread([this] {
      status_ = peer_->Run();
      ::shutdown(peer_fd_.get(), SHUT_RDWR);
    });
  }
  ~Rig() {
    if (thread_.joinable()) End();
  }

  Peer& peer() { return *peer_; }
  int host() const { return host_.get(); }
  void HangUp() { host_.Reset(); }

  void Send(gxmod::ConnectionType type, std::uint32_t id, std::string_view payload = {}) {
    EXPECT_TRUE(WriteAll(host(), MakeFrame(type, id, payload)));
  }
  // Opens a connection and returns the target's end of it.
  Descriptor Connect(std::uint32_t id, const LocalTarget& target) {
    Send(gxmod::ConnectionType::Connect, id, target.Address());
    return target.Accept();
  }

  Frame Next() {
    const std::string bytes = ReadExactly(host(), gxmod::kFrameHeaderBytes);
    if (bytes.size() < gxmod::kFrameHeaderBytes) return {};
    const auto header = gxmod::DecodeFrameHeader(bytes.data());
    return {header.type, header.connection_id, ReadExactly(host(), header.length)};
  }
  // The data of one connection up to its end or to `length` bytes; other connections may not speak.
  std::string Data(std::uint32_t id, std::size_t length) {
    std::string bytes;
    while (bytes.size() < length) {
      const Frame frame = Next();
      if (frame.type != gxmod::ConnectionType::Data || frame.id != id) break;
      bytes += frame.payload;
    }
    return bytes;
  }

  // Waits for Run's end.
  int Join() {
    thread_.join();
    peer_.reset();
    return status_;
  }
  // Ends the peer's input and waits.
  int End() {
    if (host() >= 0) ::shutdown(host(), SHUT_WR);
    return Join();
  }
  std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  Descriptor host_;
  Descriptor peer_fd_;
  std::unique_ptr<Peer> peer_;
  std::thread thread_;
  int status_ = -1;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A name server: every name has the one address 127.0.0.1, but of those that begin with "dead" it says nothing.
// A question is a header of 12 bytes, the name in labels, the type (A: 1) and the class.
class NameServer {
 public:
  ~NameServer() {
    ::shutdown(socket_.fd(), SHUT_RDWR);
    thread_.join();
  }

  std::string Address() const { return socket_.Address(); }

 private:
  void Serve() {
    char bytes[512];
    sockaddr_in client{};
    socklen_t length = sizeof client;
    auto* const from = reinterpret_cast<sockaddr*>(&client);
    ssize_t count = 0;
    while ((count = ::recvfrom(socket_.fd(), bytes, sizeof bytes, 0, from, &length)) > 12) {
      std::string reply(bytes, static_cast<std::size_t>(count));
      if (reply.substr(13, 4) == "dead") continue;
      reply.resize(reply.find('\0', 12) + 5);
      const bool has_address = reply[reply.size() - 3] == 1;
      reply.replace(2, 10, std::string("\x81\x80\0\1\0\0\0\0\0\0", 10));
      reply[7] = has_address ? 1 : 0;
      if (has_address) reply += std::string("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1", 16);
      ::sendto(socket_.fd(), reply.data(), reply.size(), 0, from, length);
    }
  }

  const LocalTarget socket_{SOCK_DGRAM};
  std::thread thread_{[this] { Serve(); }};
};

}  // namespace gxtool

#endif  // GX_TESTS_PEER_RIG_H
