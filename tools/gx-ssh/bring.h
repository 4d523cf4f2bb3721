// Starts gx-ssh-peer through a carrier that leads to a shell.
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

// The orders for BringTalk, from the options. Throws Failure when there is no gx-ssh-peer to bring.
BringOrders MakeBringOrders(const Options& options);

// Runs a BringTalk on a stream's descriptors. Threads: the one that runs `io`.
class Bring {
 public:
  struct Result {
    // runs or failed is called, once; it may destroy this object. `received` came from gx-ssh-peer.
    std::function<void(Descriptor input, const std::string& received)> runs;
    std::function<void(const std::string& problem)> failed;
    // Called after each further part of the upload.
    std::function<void(const StoredPeer& peer, std::size_t sent, std::size_t total)> moved;
  };

  // Owns `input`; `output` is borrowed. `patience`: the limit for a time without an answer and without
  // progress; 0: no limit.
  Bring(asio::io_context& io, Descriptor input, int output, std::chrono::milliseconds patience,
        BringOrders orders, Result result);

  // What the shell said before its first answer, see BringTalk::noise.
  const std::string& noise() const { return talk_.noise(); }

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
  std::string writing_;  // read by asio
  std::string unsent_;   // to send after writing_
  bool settled_ = false;
  std::array<char, 4096> chunk_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_BRING_H
