// A peer on one end of a socket pair, the test on the other, and targets on real TCP sockets.
#ifndef GX_TESTS_PEER_RIG_H
#define GX_TESTS_PEER_RIG_H

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "link/control_frames.h"
#include "link/ready_line.h"
#include "peer/peer.h"

namespace gxtool {

inline constexpr int kBoundMs = 20'000;  // of every wait

class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() {
    if (fd_ >= 0) ::close(fd_);
  }
  int get() const { return fd_; }

 private:
  int fd_;
};

inline bool WaitFor(int fd, short events, int bound_ms = kBoundMs) {
  pollfd entry{fd, events, 0};
  return ::poll(&entry, 1, bound_ms) == 1;
}

// At most `limit` bytes; empty at the end, after an error and when nothing comes.
inline std::string ReadSome(int fd, std::size_t limit = 65536) {
  std::string bytes(limit, '\0');
  const ssize_t count = WaitFor(fd, POLLIN) ? ::read(fd, bytes.data(), bytes.size()) : -1;
  bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return bytes;
}

inline std::string ReadExactly(int fd, std::size_t length) {
  std::string bytes;
  while (bytes.size() < length) {
    const std::string piece = ReadSome(fd, std::min<std::size_t>(length - bytes.size(), 1 << 20));
    if (piece.empty()) break;
    bytes += piece;
  }
  return bytes;
}

inline std::string ReadToEnd(int fd) {
  std::string bytes;
  for (std::string piece = ReadSome(fd); !piece.empty(); piece = ReadSome(fd)) bytes += piece;
  return bytes;
}

inline bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = WaitFor(fd, POLLOUT) ? ::send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT) : -1;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// Writes until nobody takes any more for a while; returns how many bytes that were.
inline std::size_t WriteUntilStuck(int fd, std::string_view bytes) {
  std::size_t written = 0;
  while (written < bytes.size() && WaitFor(fd, POLLOUT, 500)) {
    const ssize_t count = ::send(fd, bytes.data() + written, bytes.size() - written, MSG_DONTWAIT);
    if (count > 0) written += static_cast<std::size_t>(count);
  }
  return written;
}

// Bytes that differ from place to place and from seed to seed.
inline std::string Pattern(std::size_t length, std::uint32_t seed) {
  std::string bytes(length, '\0');
  std::uint32_t state = seed * 2654435761U + 1;
  for (char& byte : bytes) byte = static_cast<char>((state = state * 1664525U + 1013904223U) >> 24);
  return bytes;
}

class Target {
 public:
  Target() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), length), 0);
    EXPECT_EQ(::listen(fd_.get(), 1024), 0);
    EXPECT_EQ(::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address_), &length), 0);
  }

  std::string Address() const { return "127.0.0.1:" + std::to_string(port()); }
  int port() const { return ntohs(address_.sin_port); }
  int fd() const { return fd_.get(); }
  const sockaddr_in& address() const { return address_; }
  bool HasCaller(int bound_ms) const { return WaitFor(fd_.get(), POLLIN, bound_ms); }
  Fd Accept() const {
    return Fd(HasCaller(kBoundMs) ? ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

 private:
  Fd fd_;
  sockaddr_in address_{};
};

struct Frame {
  int type = -1;  // -1: the stream has ended
  std::uint32_t id = 0;
  std::string payload;

  bool operator==(const Frame&) const = default;
};

inline Frame Of(gxmod::ConnectionType type, std::uint32_t id, std::string payload = {}) {
  return {static_cast<int>(type), id, std::move(payload)};
}

class Rig {
 public:
  // A peer that permits every target, unless told otherwise.
  static PeerOptions Options() {
    PeerOptions options;
    options.allow = AllowList::Any();
    options.raw = true;
    return options;
  }

  explicit Rig(PeerOptions options = Options()) {
    std::signal(SIGPIPE, SIG_IGN);
    int pair[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    host_ = Fd(pair[0]);
    peer_fd_ = Fd(pair[1]);
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
  void HangUp() { host_ = Fd(); }

  void Send(gxmod::ConnectionType type, std::uint32_t id, std::string_view payload = {}) {
    EXPECT_TRUE(WriteAll(host(), MakeFrame(type, id, payload)));
  }
  // Opens a connection and returns the target's end of it.
  Fd Connect(std::uint32_t id, const Target& target) {
    Send(gxmod::ConnectionType::Connect, id, target.Address());
    return target.Accept();
  }

  std::string Line() { return ReadExactly(host(), ReadyLine(Side::kPeer).size()); }
  Frame Next() {
    const std::string bytes = ReadExactly(host(), gxmod::kFrameHeaderBytes);
    if (bytes.size() < gxmod::kFrameHeaderBytes) return {};
    const auto header = gxmod::DecodeFrameHeader(bytes.data());
    return Of(header.type, header.connection_id, ReadExactly(host(), header.length));
  }
  // The data of one connection up to its end or to `length` bytes; other connections may not speak.
  std::string Data(std::uint32_t id, std::size_t length) {
    std::string bytes;
    while (bytes.size() < length) {
      const Frame frame = Next();
      if (frame.type != static_cast<int>(gxmod::ConnectionType::Data) || frame.id != id) break;
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
  Fd host_;
  Fd peer_fd_;
  std::unique_ptr<Peer> peer_;
  std::thread thread_;
  int status_ = -1;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace gxtool

#endif  // GX_TESTS_PEER_RIG_H
