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

// Begins to connect to a local port, where the relay may begin at once. Throws std::system_error.
Descriptor ConnectTo(const std::string& address, std::uint16_t port);

// The end of the client's input goes on to the port, and the relay lasts until the port's side ends, too.
// Threads: the one that runs `io`.
class Relay {
 public:
  struct Events {
    // More of what the port's side sent is with the client. May be empty; it may destroy the relay.
    std::function<void()> delivered;
    // The client sends no more, and the far side cannot be told. Empty: the port's sending side is shut down.
    std::function<void()> untold;
    // Over: the port's side has ended and all of it is with the client, or something has failed: `problem` says
    // what. Once; it may destroy the relay.
    std::function<void(const std::string& problem)> ended;
  };

  // Reads the client from `input` and writes to it at `output`; none: at `input`, too. `pass` lets it enter at
  // `port`; none: that port has no entrance.
  Relay(asio::io_context& io, Descriptor input, Descriptor output, Descriptor port, Entrance::Pass pass,
        Events events);

  std::uint64_t sent() const { return up_.bytes; }        // from the client to the port
  std::uint64_t received() const { return down_.bytes; }  // from there, and with the client

 private:
  using Stream = asio::posix::stream_descriptor;
  // Memory that nobody has written to yet costs nothing, so it is not cleared: most connections say little.
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
