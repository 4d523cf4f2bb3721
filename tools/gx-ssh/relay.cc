#include "gx-ssh/relay.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <asio/buffer.hpp>
#include <asio/error.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/write.hpp>
#include <cerrno>
#include <system_error>
#include <utility>

#include "common/high_descriptors.h"

namespace gxtool {

Descriptor ConnectTo(const std::string& address, std::uint16_t port) {
  const asio::ip::tcp::endpoint endpoint(asio::ip::make_address(address), port);
  Descriptor made(MoveUp(socket(endpoint.protocol().family(), SOCK_STREAM, 0)));
  if (!made) throw std::system_error(errno, std::generic_category(), "socket");
  fcntl(made.get(), F_SETFD, FD_CLOEXEC);
  SetNonBlocking(made.get(), true);
  const int on = 1;
  setsockopt(made.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const int result = connect(made.get(), endpoint.data(), static_cast<socklen_t>(endpoint.size()));
  if (result != 0 && errno != EINPROGRESS) throw std::system_error(errno, std::generic_category(), "connect");
  return made;
}

Relay::Relay(asio::io_context& io, Descriptor input, Descriptor output, Descriptor port, Entrance::Pass pass,
             Events events)
    : input_(io, input.Release()),
      output_(output ? std::make_optional<Stream>(io, output.Release()) : std::nullopt),
      port_(io, port.Release()),
      pass_(std::move(pass)),
      events_(std::move(events)) {
  if (!pass_) {
    Begin();
    return;
  }
  const auto sent = [this](asio::error_code error, std::size_t) {
    error ? End("the port broke it: " + error.message()) : Begin();
  };
  asio::async_write(port_, asio::buffer(pass_.secret()), lifetime_.Guard(sent));
}

void Relay::Begin() {
  Pump(up_);
  Pump(down_);
}

void Relay::Pump(Direction& direction) {
  const auto written = [this, &direction](asio::error_code error, std::size_t put) {
    direction.bytes += put;
    error ? OnWriteFailed(direction, error) : OnWritten(direction);
  };
  const auto read = [this, &direction, written](asio::error_code error, std::size_t got) {
    if (error) return OnReadEnd(direction, error);
    asio::async_write(direction.to, asio::buffer(direction.buffer.get(), got), lifetime_.Guard(written));
  };
  direction.from.async_read_some(asio::buffer(direction.buffer.get(), kBufferBytes), lifetime_.Guard(read));
}

void Relay::OnReadEnd(const Direction& direction, asio::error_code error) {
  const bool broken = error != asio::error::eof;
  // The module closes connections only as a whole: when it stops sending, it also stops reading.
  if (&direction == &down_) return End(broken ? "the module broke it: " + error.message() : "");
  if (broken) return End("its input cannot be read: " + error.message());
  if (pass_.EndInput(up_.bytes)) return;
  if (events_.untold) return events_.untold();
  shutdown(port_.native_handle(), SHUT_WR);
}

void Relay::OnWriteFailed(const Direction& direction, asio::error_code error) {
  // When the port takes no more data, it has ended; the data that it sent before is still read.
  if (&direction == &down_) End("its output cannot be written: " + error.message());
}

void Relay::OnWritten(Direction& direction) {
  Pump(direction);
  if (&direction != &down_ || !events_.delivered) return;
  const auto delivered = events_.delivered;
  delivered();
}

void Relay::End(const std::string& problem) {
  const auto ended = events_.ended;
  ended(problem);
}

}  // namespace gxtool
