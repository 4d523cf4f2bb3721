// One connection on standard input and output: what -W does.
#ifndef GX_SSH_STANDARD_IO_H
#define GX_SSH_STANDARD_IO_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>

#include "gx-ssh/descriptor.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/relay.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// Carries the bytes of two descriptors over one connection of the module. The frames know no end of one
// direction only, so at the end of the input the connection stays open: once all of it has gone out the far
// side is told, and the connection lasts until the target closes it. Threads: the one that runs `io`.
class StandardIo {
 public:
  struct Events {
    // All of the input has gone out on that connection. False: the far side cannot be told, so nobody will know
    // what has become of it.
    std::function<bool(std::uint32_t connection)> input_sent;
    // Once; it may destroy this object. `well`: a byte came back, or the target has got all of the input.
    std::function<void(bool well)> ended;
  };

  // The descriptors are borrowed and made non-blocking for the lifetime of this object.
  StandardIo(asio::io_context& io, int input, int output, Descriptor port, const Traffic& traffic,
             Events events);
  ~StandardIo();

  // The target has got all of the input.
  void OnInputDelivered() { delivered_ = true; }

 private:
  void AwaitSent();
  void AwaitAnswer(std::chrono::milliseconds patience);

  const int input_;
  const int output_;
  const int input_flags_;
  const int output_flags_;
  const Traffic& traffic_;
  const Events events_;
  bool delivered_ = false;
  asio::steady_timer timer_;
  Lifetime lifetime_;
  Relay relay_;
};

}  // namespace gxtool

#endif  // GX_SSH_STANDARD_IO_H
