#include "gx-ssh/standard_io.h"

#include <spdlog/spdlog.h>

#include <utility>

#include "common/duration.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

// A far side that does not support the end-of-input frame cannot answer it. After this silence the connection
// counts as finished.
constexpr milliseconds kUntoldPatience{3'000};

}  // namespace

StandardIo::StandardIo(asio::io_context& io, int input, int output, Descriptor port, Entrance::Pass pass,
                       Ended ended)
    : input_(input),
      output_(output),
      ended_(std::move(ended)),
      timer_(io),
      relay_(io, Descriptor(input_.Duplicate()), Descriptor(output_.Duplicate()), std::move(port),
             std::move(pass),
             {[this] { OnDelivered(); },
              [this] {
                delivered_ = true;  // assumed: this far side does not report it
                AwaitAnswer();
              },
              [this](const std::string& problem) { OnRelayEnded(problem); }}) {}

void StandardIo::AwaitAnswer() {
  timer_.expires_after(kUntoldPatience);
  timer_.async_wait(lifetime_.Guard([this, before = relay_.received()](asio::error_code) {
    if (relay_.received() != before) return AwaitAnswer();
    spdlog::info("nothing came for {} after the end of the input, and the target does not end the connection",
                 FormatDuration(kUntoldPatience));
    End({});
  }));
}

void StandardIo::EndAfter(std::uint64_t received, const std::string& problem) {
  last_byte_ = received;
  link_problem_ = problem;
  OnDelivered();
}

void StandardIo::OnDelivered() {
  if (last_byte_ && relay_.received() >= *last_byte_) End(link_problem_);
}

void StandardIo::OnRelayEnded(const std::string& problem) {
  if (!problem.empty()) return End(problem);
  if (!refused_.empty()) return End("the far side cannot open it: " + refused_);
  if (last_byte_) return End(link_problem_);
  if (relay_.received() == 0 && !delivered_) {
    return End("the far side closed it at once; does it allow it (--allow), and does something listen there?");
  }
  End(reset_ ? "the target broke it, and bytes may be lost" : "");
}

void StandardIo::End(const std::string& problem) {
  const auto ended = ended_;
  ended(problem);
}

}  // namespace gxtool
