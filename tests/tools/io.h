// Descriptors, targets and programs for the tests of the tools. Every wait has a bound.
#ifndef GX_TESTS_TOOLS_IO_H
#define GX_TESTS_TOOLS_IO_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <list>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/descriptor.h"
#include "gx-ssh/child.h"
#include "support/wait.h"

namespace gxtool {

using gxtest::kPatience;
inline constexpr int kBoundMs = std::chrono::milliseconds(kPatience).count();  // of every wait

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

inline std::string ReadLine(int fd) {
  std::string line;
  for (std::string byte; !(byte = ReadSome(fd, 1)).empty() && byte != "\n";) line += byte;
  return line;
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

class Target {
 public:
  // One that does not listen refuses who comes, and nobody else gets its port.
  explicit Target(bool listens = true) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), length), 0);
    if (listens) {
      EXPECT_EQ(::listen(fd_.get(), 1024), 0);
    }
    EXPECT_EQ(::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address_), &length), 0);
  }

  std::string Address() const { return "127.0.0.1:" + std::to_string(port()); }
  int port() const { return ntohs(address_.sin_port); }
  int fd() const { return fd_.get(); }
  const sockaddr_in& address() const { return address_; }
  bool HasCaller(int bound_ms) const { return WaitFor(fd_.get(), POLLIN, bound_ms); }
  Descriptor Accept() const {
    return Descriptor(HasCaller(kBoundMs) ? ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

 private:
  Descriptor fd_;
  sockaddr_in address_{};
};

// Sends back what it gets, until it gets no more.
class EchoServer {
 public:
  ~EchoServer() {
    ::shutdown(target_.fd(), SHUT_RDWR);
    thread_.join();
    for (std::thread& client : clients_) client.join();
  }
  const Target& target() const { return target_; }

 private:
  void Serve() {
    int client = -1;
    while ((client = ::accept4(target_.fd(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
      clients_.emplace_back([fd = Descriptor(client)] {
        for (std::string piece = ReadSome(fd.get()); !piece.empty(); piece = ReadSome(fd.get())) {
          if (!WriteAll(fd.get(), piece)) break;
        }
      });
    }
  }

  Target target_;
  std::list<std::thread> clients_;
  std::thread thread_{[this] { Serve(); }};
};

// A program that runs, its outputs in the hands of the test.
class Program {
 public:
  // `input` and `output` become its standard ones; without an output it is collected.
  Program(const char* path, std::vector<std::string> arguments, int input = 0, int output = -1)
      : child_({Line(path, std::move(arguments)), input, output < 0 ? output_.write.get() : output,
                errors_.write.get()}) {
    output_.write.Reset();
    errors_.write.Reset();
  }

  std::string Line() { return ReadLine(output_.read.get()); }
  std::string Output() { return ReadToEnd(output_.read.get()); }
  int errors() const { return errors_.read.get(); }
  // All that came since the start or was not read by other means.
  const std::string& Errors() { return said_ += ReadToEnd(errors_.read.get()); }
  void Signal(int number) { child_.Signal(number); }
  // As a shell would say it.
  int Status() {
    gxtest::Eventually([this] { return child_.Poll().has_value(); });
    return child_.Poll() ? Child::ExitStatus(*child_.Poll()) : -1;
  }

 private:
  static std::vector<std::string> Line(const char* path, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), path);
    return arguments;
  }

  Pipe output_ = MakePipe();
  Pipe errors_ = MakePipe();
  std::string said_;
  Child child_;
};

}  // namespace gxtool

#endif  // GX_TESTS_TOOLS_IO_H
