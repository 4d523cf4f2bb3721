// The first words on a fresh stream: each side says that it is there.
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

// Sends our ready line and waits for that of the far side. Threads: the one that runs `io`.
class Handshake {
 public:
  // Called once; they may destroy the handshake.
  struct Result {
    // `received`: bytes that came behind the line. `features`: of the far side.
    std::function<void(Descriptor input, std::string received, Features features)> ready;
    std::function<void(const std::string& problem)> failed;  // with a hint
  };

  // Owns `input`, of which `received` has been read already; `output` is borrowed. A timeout of 0 is none.
  Handshake(asio::io_context& io, Descriptor input, const std::string& received, int output,
            std::chrono::milliseconds timeout, Result result);

  // The end of what came before the ready line.
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
