#include "socket.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "failure.h"

namespace gxbench {
namespace {

SocketSettings g_settings;

[[noreturn]] void Fail(const char* operation) {
  const bool late = errno == EAGAIN || errno == EWOULDBLOCK;
  throw Failure(std::string(operation) + ": " + (late ? "nothing moves" : std::strerror(errno)));
}

int NewSocket() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail("socket");
  return fd;
}

}  // namespace

void SetSockets(const SocketSettings& settings) { g_settings = settings; }

sockaddr_in ParseAddress(const std::string& text) {
  const std::size_t colon = text.find(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  std::uint16_t port = 0;
  const bool good = colon != std::string::npos &&
                    inet_pton(AF_INET, text.substr(0, colon).c_str(), &address.sin_addr) == 1 &&
                    std::from_chars(text.data() + colon + 1, text.data() + text.size(), port).ptr ==
                        text.data() + text.size() &&
                    port != 0;
  if (!good) throw Failure("not an IPv4 address and a port: " + text);
  address.sin_port = htons(port);
  return address;
}

Socket::Socket(int fd) : fd_(fd) {
  const int on = 1;
  setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const timeval patience{g_settings.patience_s, 0};
  setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  const int bytes = g_settings.unsent_bytes;
  if (bytes != 0) setsockopt(fd_, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

Socket::~Socket() {
  if (fd_ >= 0) close(fd_);
}

Socket Socket::Connect(const sockaddr_in& address) {
  Socket made(NewSocket());
  if (connect(made.fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) Fail("connect");
  return made;
}

std::pair<Socket, Socket> Socket::Pair() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) Fail("socketpair");
  return {Socket(ends[0]), Socket(ends[1])};
}

void Socket::Send(std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0) Fail("send");
    bytes = bytes.subspan(static_cast<std::size_t>(sent));
  }
}

std::size_t Socket::Receive(std::span<std::byte> space) {
  const ssize_t received = recv(fd_, space.data(), space.size(), 0);
  if (received < 0) Fail("receive");
  return static_cast<std::size_t>(received);
}

bool Socket::ReceiveAll(std::span<std::byte> bytes) {
  for (std::size_t have = 0; have < bytes.size();) {
    const std::size_t more = Receive(bytes.subspan(have));
    if (more == 0 && have == 0) return false;
    if (more == 0) throw Failure("the stream ended too early");
    have += more;
  }
  return true;
}

Listener::Listener(std::uint16_t port) : fd_(NewSocket()) {
  const int on = 1;
  setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  address_.sin_family = AF_INET;
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address_.sin_port = htons(port);
  auto* const address = reinterpret_cast<sockaddr*>(&address_);
  socklen_t length = sizeof address_;
  if (bind(fd_, address, length) != 0 || listen(fd_, 1024) != 0 || getsockname(fd_, address, &length) != 0) {
    Fail("listen");
  }
}

Listener::~Listener() { close(fd_); }

bool Listener::Accept(Socket& out) {
  for (;;) {
    const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
      out = Socket(fd);
      return true;
    }
    if (errno == EINVAL) return false;  // shut
    if (errno != ECONNABORTED && errno != EINTR) Fail("accept");
  }
}

void Listener::Shut() { shutdown(fd_, SHUT_RD); }

}  // namespace gxbench
