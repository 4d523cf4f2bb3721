#include "gx-ssh/relay.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <system_error>
#include <utility>

namespace gxtool {

Descriptor ConnectTo(const std::string& address, std::uint16_t port) {
  constexpr int kLimitMs = 1000;
  const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address), port);
  Descriptor made(socket(endpoint.protocol().family(), SOCK_STREAM, 0));
  fcntl(made.get(), F_SETFD, FD_CLOEXEC);
  SetNonBlocking(made.get(), true);
  const int on = 1;
  setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  int error = connect(made.get(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    pollfd wait{made.get(), POLLOUT, 0};
    socklen_t size = sizeof error;
    error = ETIMEDOUT;
    if (poll(&wait, 1, kLimitMs) == 1) getsockopt(made.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  }
  if (error != 0) throw std::system_error(error, std::generic_category(), "connect");
  return made;
}

Relay::Relay(asio::io_context& io, Descriptor input, Descriptor output, Descriptor port, Events events)
    : input_(io, input.Release()),
      output_(io, output.Release()),
      port_(io, port.Release()),
      events_(std::move(events)) {
  Pump(up_);
  Pump(down_);
}

void Relay::Pump(Direction& direction) {
  const auto written = [this, &direction](asio::error_code error, std::size_t) {
    error ? OnFinished(direction, true) : Pump(direction);
  };
  const auto read = [this, &direction, written](asio::error_code error, std::size_t got) {
    if (error) return OnFinished(direction, error != asio::error::eof);
    direction.bytes += got;
    asio::async_write(direction.to, asio::buffer(direction.buffer, got), lifetime_.Guard(written));
  };
  direction.from.async_read_some(asio::buffer(direction.buffer), lifetime_.Guard(read));
}

void Relay::OnFinished(const Direction& direction, bool failed) {
  // The module never ends only one half of a connection: when it sends no more, it takes no more either.
  if (failed || &direction == &down_) {
    const auto ended = events_.ended;
    return ended();
  }
  if (events_.client_finished) return events_.client_finished();
  shutdown(port_.native_handle(), SHUT_WR);
}

}  // namespace gxtool
