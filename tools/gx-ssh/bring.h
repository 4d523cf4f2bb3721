// Gets gx-ssh-peer running behind a carrier that leads to a shell.
#ifndef GX_SSH_BRING_H
#define GX_SSH_BRING_H

#include <array>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>

#include "common/descriptor.h"
#include "gx-ssh/bring_talk.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/options.h"

namespace gxtool {

// What the options ask for. Throws Failure when there is no peer to bring.
BringOrders MakeBringOrders(const Options& options);

// Runs a BringTalk on the descriptors of a stream. Threads: the one that runs `io`.
class Bring {
 public:
  struct Result {
    // Called once; they may destroy this object. `received` came from gx-ssh-peer.
    std::function<void(Descriptor input, const std::string& received)> runs;
    std::function<void(const std::string& problem)> failed;
    // Whenever more of it was sent.
    std::function<void(const StoredPeer& peer, std::size_t sent, std::size_t total)> moved;
  };

  // Owns `input`; `output` is borrowed. `patience`: without an answer and without a byte that moves; 0: no
  // limit.
  Bring(asio::io_context& io, Descriptor input, int output, std::chrono::milliseconds patience,
        BringOrders orders, Result result);

 private:
  void Read();
  void Take(std::string_view bytes);
  void Send(const std::string& bytes);
  void Write();
  void WaitOn();
  void Fail(const std::string& problem);

  asio::posix::stream_descriptor input_;
  asio::posix::stream_descriptor output_;
  asio::steady_timer timer_;
  const std::chrono::milliseconds patience_;
  const Result result_;
  BringTalk talk_;
  std::string writing_;  // asio reads it
  std::string unsent_;   // behind that
  bool settled_ = false;
  std::array<char, 4096> chunk_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_BRING_H
