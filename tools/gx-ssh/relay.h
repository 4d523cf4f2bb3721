// Carries bytes both ways between a client and a port of the module.
#ifndef GX_SSH_RELAY_H
#define GX_SSH_RELAY_H

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "gx-ssh/descriptor.h"
#include "gx-ssh/lifetime.h"

namespace gxtool {

// Connects to a local port; what listens there answers at once, so this hardly waits. Throws std::system_error.
Descriptor ConnectTo(const std::string& address, std::uint16_t port);

// Threads: the one that runs `io`.
class Relay {
 public:
  struct Events {
    // The client sends no more. Empty: the port learns it at once.
    std::function<void()> client_finished;
    // Over: the port's side has ended and all of it is with the client, or one of the two has failed. Once; it
    // may destroy the relay.
    std::function<void()> ended;
  };

  // Reads the client from `input` and writes to it at `output`.
  Relay(asio::io_context& io, Descriptor input, Descriptor output, Descriptor port, Events events);

  std::uint64_t sent() const { return up_.bytes; }        // from the client
  std::uint64_t received() const { return down_.bytes; }  // to the client

 private:
  using Stream = asio::posix::stream_descriptor;
  struct Direction {
    Stream& from;
    Stream& to;
    std::uint64_t bytes = 0;
    std::array<char, 64 * 1024> buffer = {};
  };

  void Pump(Direction& direction);
  void OnFinished(const Direction& direction, bool failed);

  Stream input_;
  Stream output_;
  Stream port_;
  Direction up_{input_, port_};
  Direction down_{port_, output_};
  const Events events_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_RELAY_H
