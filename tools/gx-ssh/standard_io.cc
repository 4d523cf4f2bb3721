#include "gx-ssh/standard_io.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>

#include <utility>
#include <vector>

#include "link/duration.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kSentCheck{5};
// Without a byte from the far side after the end of the input. A far side that was told closes by itself.
constexpr milliseconds kToldPatience{30'000};
constexpr milliseconds kUntoldPatience{3'000};

}  // namespace

StandardIo::StandardIo(asio::io_context& io, int input, int output, Descriptor port, const Traffic& traffic,
                       Events events)
    : input_(input),
      output_(output),
      input_flags_(fcntl(input, F_GETFL)),
      output_flags_(fcntl(output, F_GETFL)),
      traffic_(traffic),
      events_(std::move(events)),
      timer_(io),
      relay_(io, Duplicate(input), Duplicate(output), std::move(port),
             {[this] { AwaitSent(); },
              [this] {
                const auto ended = events_.ended;
                ended(delivered_ || relay_.received() > 0);
              }}) {}

StandardIo::~StandardIo() {
  // They may be shared with the shell, which expects them to block.
  fcntl(input_, F_SETFL, input_flags_);
  fcntl(output_, F_SETFL, output_flags_);
}

void StandardIo::AwaitSent() {
  const std::vector<Traffic::Connection> open = traffic_.open();
  if (!open.empty() && open.front().sent >= relay_.sent()) {
    delivered_ = !events_.input_sent(open.front().id);
    return AwaitAnswer(delivered_ ? kUntoldPatience : kToldPatience);
  }
  timer_.expires_after(kSentCheck);
  timer_.async_wait(lifetime_.Guard([this](asio::error_code) { AwaitSent(); }));
}

void StandardIo::AwaitAnswer(milliseconds patience) {
  timer_.expires_after(patience);
  timer_.async_wait(lifetime_.Guard([this, patience, before = relay_.received()](asio::error_code) {
    if (relay_.received() != before) return AwaitAnswer(patience);
    spdlog::info("nothing came for {} after the end of the input, and the target does not end the connection",
                 FormatDuration(patience));
    const auto ended = events_.ended;
    ended(delivered_ || relay_.received() > 0);
  }));
}

}  // namespace gxtool
