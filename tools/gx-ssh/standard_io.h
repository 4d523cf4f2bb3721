// One connection on standard input and output, for -W.
#ifndef GX_SSH_STANDARD_IO_H
#define GX_SSH_STANDARD_IO_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "common/borrowed_fd.h"
#include "common/descriptor.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/relay.h"

namespace gxtool {

// Carries the bytes of two descriptors over one connection of the module. It lasts until the target closes the
// connection, however long that takes. Threads: the one that runs `io`.
class StandardIo {
 public:
  // Called once; it may destroy this object. An empty `problem` means a normal end: a byte came back, or the
  // target received the whole input. Otherwise `problem` tells why bytes are or may be missing.
  using Ended = std::function<void(const std::string& problem)>;

  // The descriptors are borrowed and made non-blocking for the lifetime of this object.
  StandardIo(asio::io_context& io, int input, int output, Descriptor port, Entrance::Pass pass, Ended ended);

  // The target has received the whole input.
  void OnInputDelivered() { delivered_ = true; }
  // The target could not be reached; the end of the connection follows.
  void OnRefused(const std::string& why) { refused_ = why; }
  // The target has reset the connection; its end follows.
  void OnReset() { reset_ = true; }
  // The link ended after `received` bytes of the connection. Ends with `problem` once they have been written.
  void EndAfter(std::uint64_t received, const std::string& problem);

 private:
  void AwaitAnswer();
  void OnDelivered();
  void OnRelayEnded(const std::string& problem);
  void End(const std::string& problem);

  const BorrowedFd input_;
  const BorrowedFd output_;
  const Ended ended_;
  bool delivered_ = false;
  bool reset_ = false;
  std::string refused_;                     // the reason; empty while no refusal is known
  std::optional<std::uint64_t> last_byte_;  // see EndAfter
  std::string link_problem_;
  asio::steady_timer timer_;
  Lifetime lifetime_;
  Relay relay_;
};

}  // namespace gxtool

#endif  // GX_SSH_STANDARD_IO_H
