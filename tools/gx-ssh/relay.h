// Carries bytes both ways between a client and a port.
#ifndef GX_SSH_RELAY_H
#define GX_SSH_RELAY_H

#include <asio/error_code.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/descriptor.h"
#include "gx-ssh/entrance.h"
#include "gx-ssh/lifetime.h"

namespace gxtool {

// Starts to connect to a local port. The relay may start before the connection is complete. Throws
// std::system_error.
Descriptor ConnectTo(const std::string& address, std::uint16_t port);

// Passes the end of the client's input on to the port and lasts until the port's side ends, too. Threads: the
// one that runs `io`.
class Relay {
 public:
  struct Events {
    // The client has received more of the port's data. May be empty; it may destroy the relay.
    std::function<void()> delivered;
    // The client's input has ended, and the far side does not support the end-of-input frame. If empty, the
    // relay shuts down the port's sending side.
    std::function<void()> untold;
    // The relay is over: the port's side has ended and the client has all of its data, or `problem` tells what
    // failed. Called once; it may destroy the relay.
    std::function<void(const std::string& problem)> ended;
  };

  // Reads from the client at `input` and writes to it at `output`, or at `input` if `output` is empty. `pass`
  // is for the entrance of `port`; empty if the port has none.
  Relay(asio::io_context& io, Descriptor input, Descriptor output, Descriptor port, Entrance::Pass pass,
        Events events);

  std::uint64_t sent() const { return up_.bytes; }        // from the client to the port
  std::uint64_t received() const { return down_.bytes; }  // from the port, delivered to the client

 private:
  using Stream = asio::posix::stream_descriptor;
  // The buffer is left uninitialised: untouched memory costs nothing, and most connections carry little.
  struct Direction {
    Stream& from;
    Stream& to;
    std::uint64_t bytes = 0;
    std::unique_ptr<char[]> buffer = std::unique_ptr<char[]>(new char[kBufferBytes]);
  };
  static constexpr std::size_t kBufferBytes = 64 * 1024;

  void Begin();
  void Pump(Direction& direction);
  void OnReadEnd(const Direction& direction, asio::error_code error);
  void OnWriteFailed(const Direction& direction, asio::error_code error);
  void OnWritten(Direction& direction);
  void End(const std::string& problem);

  Stream input_;
  std::optional<Stream> output_;
  Stream port_;
  Direction up_{input_, port_};
  Direction down_{port_, output_ ? *output_ : input_};
  Entrance::Pass pass_;
  const Events events_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_RELAY_H
