// A plain TCP client with bounded waits.
#ifndef GX_TESTS_SUPPORT_TCP_CLIENT_H
#define GX_TESTS_SUPPORT_TCP_CLIENT_H

#include <netinet/in.h>

#include "support/io.h"
#include "support/pattern.h"

namespace gxtest {

class TcpClient {
 public:
  // Connects to a port of 127.0.0.1.
  explicit TcpClient(int port) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // A signal, such as a fuzzer's alarm, ends the call and not the attempt; the next call continues it.
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (TEMP_FAILURE_RETRY(connect(socket_, generic, sizeof address)) != 0) Close();
  }
  // "127.0.0.1:port"
  explicit TcpClient(const std::string& address)
      : TcpClient(std::stoi(address.substr(address.rfind(':') + 1))) {}
  TcpClient(TcpClient&& other) noexcept { *this = std::move(other); }
  TcpClient& operator=(TcpClient&& other) noexcept {
    std::swap(socket_, other.socket_);
    std::swap(seed_, other.seed_);
    std::swap(said_, other.said_);
    return *this;
  }
  ~TcpClient() { Close(); }

  bool IsConnected() const { return socket_ >= 0; }
  int socket_handle() const { return socket_; }
  // The caller owns the socket from now on.
  int Release() { return std::exchange(socket_, -1); }

  bool Send(const std::string& bytes) const { return WriteAll(socket_, bytes); }
  // Exactly `length` bytes, or fewer when the connection ends or nothing comes in time.
  std::string Receive(std::size_t length) const { return ReadExactly(socket_, length); }
  // Everything up to the end of the connection; nothing after a reset, or when time is up before the end.
  std::optional<std::string> ReceiveToEnd() const { return TryReadToEnd(socket_); }

  // Sends the next bytes of this client's pattern and gets them back.
  bool Echoes(std::size_t length = 2000) {
    const std::string bytes = Pattern(length, seed_, std::exchange(said_, said_ + length));
    std::thread sender([&] { Send(bytes); });
    const bool same = Receive(length) == bytes;
    sender.join();
    return same;
  }

  // Waits for the end or a reset.
  bool WaitForEnd() const {
    std::optional<std::string> piece;
    while (WaitFor(socket_, POLLIN)) {
      if (!(piece = TryRead(socket_, 65536)) || piece->empty()) return true;
    }
    return false;
  }

  void FinishSending() { shutdown(socket_, SHUT_WR); }

  void Close() {
    if (socket_ >= 0) close(socket_);
    socket_ = -1;
  }

  // Ends the connection with a reset.
  void Reset() {
    const linger hard{1, 0};
    setsockopt(socket_, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    Close();
  }

 private:
  inline static std::atomic<std::uint32_t> seeds_{0};

  int socket_ = -1;
  std::uint32_t seed_ = ++seeds_;
  std::uint64_t said_ = 0;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_TCP_CLIENT_H
