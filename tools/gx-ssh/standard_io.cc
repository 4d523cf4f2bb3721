#include "gx-ssh/standard_io.h"

#include <fcntl.h>
#include <spdlog/spdlog.h>

#include <utility>

#include "link/duration.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

// Without a byte from a far side that cannot be told of the end of the input.
constexpr milliseconds kUntoldPatience{3'000};

}  // namespace

StandardIo::StandardIo(asio::io_context& io, int input, int output, Descriptor port, Entrance::Pass pass,
                       Ended ended)
    : input_(input),
      output_(output),
      input_flags_(fcntl(input, F_GETFL)),
      output_flags_(fcntl(output, F_GETFL)),
      ended_(std::move(ended)),
      timer_(io),
      relay_(io, Duplicate(input), Duplicate(output), std::move(port), std::move(pass),
             {{},
              [this] {
                delivered_ = true;  // as far as can be known
                AwaitAnswer(kUntoldPatience);
              },
              [this](const std::string&) {
                const auto told = ended_;
                told(delivered_ || relay_.received() > 0);
              }}) {}

StandardIo::~StandardIo() {
  // They may be shared with the shell, which expects them to block.
  fcntl(input_, F_SETFL, input_flags_);
  fcntl(output_, F_SETFL, output_flags_);
}

void StandardIo::AwaitAnswer(milliseconds patience) {
  timer_.expires_after(patience);
  timer_.async_wait(lifetime_.Guard([this, patience, before = relay_.received()](asio::error_code) {
    if (relay_.received() != before) return AwaitAnswer(patience);
    spdlog::info("nothing came for {} after the end of the input, and the target does not end the connection",
                 FormatDuration(patience));
    const auto ended = ended_;
    ended(delivered_ || relay_.received() > 0);
  }));
}

}  // namespace gxtool
