// A blocking TCP connection with a time limit for every wait: a stalled tunnel fails the run.
#ifndef GX_BENCH_TUNNEL_SOCKET_H
#define GX_BENCH_TUNNEL_SOCKET_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

namespace gxbench {

// Settings of all sockets that are created afterwards.
struct SocketSettings {
  int patience_s = 30;   // time limit for one step of a connection
  int unsent_bytes = 0;  // limit of unsent bytes in a socket, roughly; 0: the system's
};
void SetSockets(const SocketSettings& settings);

// `text` is a numeric IPv4 address and a port: 127.0.0.1:7000.
sockaddr_in ParseAddress(const std::string& text);

class Socket {
 public:
  Socket() = default;
  // Takes the descriptor over. Small blocks are sent at once.
  explicit Socket(int fd);
  Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Socket& operator=(Socket&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Socket();

  static Socket Connect(const sockaddr_in& address);
  // The two ends of a local stream.
  static std::pair<Socket, Socket> Pair();

  void Send(std::span<const std::byte> bytes);
  // Returns the number of received bytes; 0 at the end of the stream.
  std::size_t Receive(std::span<std::byte> space);
  // Fills all of `bytes`. False: the stream ended before the first of them.
  bool ReceiveAll(std::span<std::byte> bytes);
  // Sends the end of the stream.
  void EndSending() { shutdown(fd_, SHUT_WR); }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

// For structures of plain numbers.
template <typename T>
void SendObject(Socket& connection, const T& object) {
  connection.Send(std::as_bytes(std::span(&object, 1)));
}
template <typename T>
bool ReceiveObject(Socket& connection, T& object) {
  return connection.ReceiveAll(std::as_writable_bytes(std::span(&object, 1)));
}

// A port of 127.0.0.1.
class Listener {
 public:
  explicit Listener(std::uint16_t port);  // 0: any
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  ~Listener();

  const sockaddr_in& address() const { return address_; }
  // Thread: any. Returns false, in all waiting threads, once the port is closed.
  bool Accept(Socket& out);
  void Shut();

 private:
  int fd_;
  sockaddr_in address_{};
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_SOCKET_H
