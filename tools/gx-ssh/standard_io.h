// One connection on standard input and output: what -W does.
#ifndef GX_SSH_STANDARD_IO_H
#define GX_SSH_STANDARD_IO_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "gx-ssh/descriptor.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/relay.h"

namespace gxtool {

// Carries the bytes of two descriptors over one connection of the module, which lasts until the target closes
// it. Threads: the one that runs `io`.
class StandardIo {
 public:
  // Once; it may destroy this object. `well`: a byte came back, or the target has got all of the input.
  using Ended = std::function<void(bool well)>;

  // The descriptors are borrowed and made non-blocking for the lifetime of this object.
  StandardIo(asio::io_context& io, int input, int output, Descriptor port, Entrance::Pass pass, Ended ended);
  ~StandardIo();

  // The target has got all of the input.
  void OnInputDelivered() { delivered_ = true; }

 private:
  void AwaitAnswer(std::chrono::milliseconds patience);

  const int input_;
  const int output_;
  const int input_flags_;
  const int output_flags_;
  const Ended ended_;
  bool delivered_ = false;
  asio::steady_timer timer_;
  Lifetime lifetime_;
  Relay relay_;
};

}  // namespace gxtool

#endif  // GX_SSH_STANDARD_IO_H
