#include "gx-ssh/handshake.h"

#include <unistd.h>

#include <asio/buffer.hpp>
#include <asio/post.hpp>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/duration.h"
#include "common/escape.h"

namespace gxtool {

Handshake::Handshake(asio::io_context& io, Descriptor input, const std::string& received, int output,
                     std::chrono::milliseconds timeout, Result result)
    : input_(io, input.Release()), timer_(io), result_(std::move(result)) {
  // The line fits into an empty pipe. If the reader is gone, the input ends as well, and that is reported.
  const std::string line = Greeting(Side::kHost);
  [[maybe_unused]] const ssize_t written = write(output, line.data(), line.size());
  asio::post(io, lifetime_.Guard([this, received] { Take(received); }));
  if (timeout.count() == 0) return;
  timer_.expires_after(timeout);
  timer_.async_wait(lifetime_.Guard([this, timeout](asio::error_code) {
    Fail("it has not said that it is ready within " + FormatDuration(timeout) +
         "; does it run gx-ssh-peer, or something else that needs --raw?");
  }));
}

void Handshake::Read() {
  input_.async_read_some(asio::buffer(chunk_), lifetime_.Guard([this](asio::error_code error, std::size_t got) {
    if (settled_) return;
    error ? Fail("it has ended before it was ready; does it run gx-ssh-peer?") : Take({chunk_.data(), got});
  }));
}

void Handshake::Take(std::string_view bytes) {
  bytes.remove_prefix(finder_.Feed(bytes));
  switch (finder_.state()) {
    case ReadyLineFinder::State::kSearching:
      return Read();
    case ReadyLineFinder::State::kFound: {
      // Copy: the callee may destroy this object.
      const auto ready = result_.ready;
      return ready(Descriptor(input_.release()), std::string(bytes), finder_.features());
    }
    case ReadyLineFinder::State::kOtherVersion:
      return Fail("it speaks version " + finder_.version() + " of the protocol, this gx-ssh version " +
                  std::to_string(kProtocolVersion) + "; install the same release on both sides");
    case ReadyLineFinder::State::kNotClean:
      return Fail(
          "a terminal lies in between; run the carrier without one (docker exec -i without -t, ssh -T)");
    case ReadyLineFinder::State::kTooMuchNoise:
      return Fail("it sends something else; does it run gx-ssh-peer?");
  }
}

// After a failure further input is ignored: a far side that becomes ready too late is not ready.
void Handshake::Fail(const std::string& problem) {
  if (std::exchange(settled_, true)) return;
  std::string text = problem;
  if (finder_.echoed()) text += "; a terminal in between echoes (docker exec -i without -t, ssh -T)";
  if (!finder_.noise().empty()) text += "; it said \"" + Escape(finder_.noise()) + "\"";
  const auto failed = result_.failed;
  failed(text);
}

}  // namespace gxtool
