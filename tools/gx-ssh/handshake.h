// The start of a stream: each side announces itself.
#ifndef GX_SSH_HANDSHAKE_H
#define GX_SSH_HANDSHAKE_H

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "common/descriptor.h"
#include "common/ready_line.h"
#include "gx-ssh/lifetime.h"

namespace gxtool {

// Sends our ready line and waits for the far side's. Threads: the one that runs `io`.
class Handshake {
 public:
  // One of these is called, once. It may destroy the handshake.
  struct Result {
    // `received`: bytes that followed the line. `features`: the far side's.
    std::function<void(Descriptor input, std::string received, Features features)> ready;
    std::function<void(const std::string& problem)> failed;  // with a hint
  };

  // Owns `input`, from which `received` has already been read; `output` is borrowed. A timeout of 0 means no
  // limit.
  Handshake(asio::io_context& io, Descriptor input, const std::string& received, int output,
            std::chrono::milliseconds timeout, Result result);

  // The last bytes that arrived before the ready line.
  const std::string& noise() const { return finder_.noise(); }

 private:
  void Read();
  void Take(std::string_view bytes);
  void Fail(const std::string& problem);

  asio::posix::stream_descriptor input_;
  asio::steady_timer timer_;
  const Result result_;
  ReadyLineFinder finder_{Side::kPeer};
  bool settled_ = false;
  std::array<char, 4096> chunk_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_HANDSHAKE_H
