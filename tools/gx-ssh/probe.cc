#include "gx-ssh/probe.h"

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <array>
#include <asio/buffer.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <deque>
#include <utility>

#include "common/control_frames.h"
#include "common/escape.h"
#include "common/frame_reader.h"
#include "common/receipts.h"
#include "gx-ssh/bring.h"
#include "gx-ssh/carrier.h"
#include "gx-ssh/handshake.h"
#include "gx-ssh/reporter.h"
#include "gx-ssh/terminal.h"

namespace gxtool {
namespace {

using Clock = std::chrono::steady_clock;
using gxmod::ConnectionType;
using std::chrono::milliseconds;

constexpr std::size_t kPings = 50;
constexpr milliseconds kRoundTripTime{2'000};  // for all pings
constexpr milliseconds kBytesTime{3'000};      // for the test of all byte values
constexpr milliseconds kRateTime{1'500};  // for each rate, and at most twice as long for the pending answers
constexpr milliseconds kStartTime{500};   // until the far side knows what the line carries
constexpr milliseconds kDrainTime{3'000};

// The initial amount of data under way; answers raise it. More than the line carries would only fill its
// buffers, and a slow line might not deliver that before the probe ends.
constexpr std::size_t kFirstWindow = 4 * 1024;
constexpr std::size_t kLargestWindow = 4 * 1024 * 1024;
constexpr std::size_t kLargestPayload = 64 * 1024;
constexpr std::size_t kAnsweredPayload = 1024;  // the far side returns so much of a test's text

double Seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

std::string EveryByte() {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes += static_cast<char>(value);
  return bytes + std::string(bytes.rbegin(), bytes.rend());
}

// Pings, which only gx-ssh-peer answers, measure the round trip. Channel tests, which every far side answers,
// measure the rest, except for the rate back, for which the far side fills the line. It gets acknowledgements
// as from a session, so that no more is under way than the line carries.
class Session final : FrameReader::Handler {
 public:
  Session(const Options& options, Console& console)
      : console_(console),
        progress_(options, console),
        carrier_(io_, options.carrier, false, console, terminal_, [] {}),
        input_(io_),
        output_(io_, carrier_.TakeOutput().Release()),
        timer_(io_),
        receipts_timer_(io_) {
    options.bring ? StartBring(options) : StartHandshake(options, carrier_.TakeInput(), {});
  }

  ProbeResult Run() {
    io_.run();
    console_.SetStatus({});
    asio::error_code ignored;
    output_.close(ignored);
    input_.close(ignored);
    carrier_.End();
    if (!result_.problem.empty()) result_.problem += "; " + carrier_.Describe();
    return std::move(result_);
  }

 private:
  enum class Phase { kRoundTrips, kBytes, kThere, kBack, kBoth, kDraining };

  void StartBring(const Options& options) {
    bring_.emplace(io_, carrier_.TakeInput(), output_.native_handle(), options.connect_timeout,
                   MakeBringOrders(options),
                   Bring::Result{[this, &options](Descriptor input, const std::string& received) {
                                   OnBrought();
                                   StartHandshake(options, std::move(input), received);
                                 },
                                 [this](const std::string& problem) { Fail("not ready: " + problem); },
                                 [this](const StoredPeer& peer, std::size_t sent, std::size_t total) {
                                   terminal_.TakeBack();
                                   sent_peer_bytes_ = sent;
                                   progress_.OnSent(peer.architecture, sent, total);
                                 }});
  }

  void OnBrought() {
    console_.SetStatus({});
    result_.noise = bring_->noise();
    result_.brought = {sent_peer_bytes_, Seconds(Clock::now() - begin_)};
    bring_.reset();
  }

  void StartHandshake(const Options& options, Descriptor input, const std::string& received) {
    handshake_.emplace(
        io_, std::move(input), received, output_.native_handle(), options.connect_timeout,
        Handshake::Result{[this](Descriptor ready, const std::string& rest, const Features& features) {
                            OnReady(std::move(ready), rest, features);
                          },
                          [this](const std::string& problem) { Fail("not ready: " + problem); }});
  }

  void OnReady(Descriptor input, const std::string& received, const Features& features) {
    terminal_.TakeBack();
    result_.ready_seconds = Seconds(Clock::now() - begin_);
    if (!result_.brought) result_.noise = handshake_->noise();
    result_.features = features;
    handshake_.reset();
    input_.assign(input.Release());
    output_.non_blocking(true);
    if (features.flow_control) receipts_.Start();
    Acknowledge();
    EndPhaseAfter(kRoundTripTime,
                  [this] { result_.round_trips_ms.empty() ? Fail("no answer to a ping") : TestBytes(); });
    Ping();
    frames_.Feed(received);
    Read();
  }

  void Ping() {
    asked_ = Clock::now();
    Send(MakeFrame(kPingFrame, 0, std::string(kPingBytes, 'p')));
  }

  void OnPong() {
    if (phase_ == Phase::kDraining && measured_ == Phase::kBack) return EndMeasure(true);
    if (phase_ != Phase::kRoundTrips) return;
    result_.round_trips_ms.push_back(1000 * Seconds(Clock::now() - asked_));
    result_.round_trips_ms.size() < kPings ? Ping() : TestBytes();
  }

  void TestBytes() {
    phase_ = Phase::kBytes;
    EndPhaseAfter(kBytesTime,
                  [this] { Fail("the answer to a test does not come: bytes are lost or changed"); });
    Send(MakeFrame(ConnectionType::TestChannel, 0, EveryByte()));
  }

  void OnBytes(std::string_view answer) {
    const std::string sent = EveryByte();
    if (answer.size() != sent.size())
      return Fail(fmt::format("of {} bytes {} come back", sent.size(), answer.size()));
    const auto [one, other] = std::mismatch(sent.begin(), sent.end(), answer.begin());
    if (one != sent.end()) {
      return Fail(fmt::format("byte {:#04x} comes back as {:#04x}", static_cast<unsigned char>(*one),
                              static_cast<unsigned char>(*other)));
    }
    result_.bytes_survive = true;
    Measure(Phase::kThere);
  }

  void Measure(Phase phase) {
    phase_ = measured_ = phase;
    phase_begin_ = last_answer_ = Clock::now();
    window_ = kFirstWindow;
    counted_ = 0;
    EndPhaseAfter(kRateTime, [this] { Drain(); });
    counts_from_ = phase_begin_ + kStartTime;
    phase == Phase::kBack ? AskForFill(kMostFillBytes) : FillWindow();
  }

  void AskForFill(std::uint64_t bytes) {
    fill_left_ = bytes;
    Send(MakeFrame(kFillFrame, 0, FillPayload(bytes)));
  }

  void OnFilled(std::size_t bytes) {
    if (measured_ != Phase::kBack) return;
    fill_left_ -= std::min<std::uint64_t>(bytes, fill_left_);
    last_answer_ = Clock::now();
    if (last_answer_ < counts_from_) {
      phase_begin_ = last_answer_;
    } else {
      counted_ += bytes;
    }
    if (phase_ == Phase::kBack && fill_left_ < kMostFillBytes / 2) AskForFill(kMostFillBytes);
  }

  void FillWindow() {
    while (in_flight_ < window_) {
      const std::size_t size = measured_ == Phase::kBoth
                                   ? kAnsweredPayload
                                   : std::clamp(window_ / 4, kAnsweredPayload, kLargestPayload);
      in_flight_ += size;
      under_way_.push_back({size, Clock::now()});
      Send(MakeFrame(ConnectionType::TestChannel, 0, std::string(size, 'r')));
    }
  }

  void OnRateAnswer() {
    if (under_way_.empty()) return;
    const auto [size, sent] = under_way_.front();
    under_way_.pop_front();
    in_flight_ -= size;
    counted_ += size;
    last_answer_ = Clock::now();
    longest_ = std::max(longest_, last_answer_ - sent);
    window_ = std::min(window_ + size, kLargestWindow);
    if (phase_ != Phase::kDraining) return FillWindow();
    if (under_way_.empty()) EndMeasure(true);
  }

  void Drain() {
    phase_ = Phase::kDraining;
    if (measured_ == Phase::kBack) {
      AskForFill(0);
      Ping();  // the pong comes behind what is under way
    } else if (under_way_.empty()) {
      return EndMeasure(true);
    }
    EndPhaseAfter(kDrainTime, [this] { EndMeasure(false); });
  }

  void EndMeasure(bool drained) {
    const double seconds = Seconds(last_answer_ - phase_begin_);
    if (counted_ == 0) return Fail("the far side has stopped answering");
    const double rate = static_cast<double>(counted_) / seconds;
    if (measured_ == Phase::kThere) {
      result_.there_rate = rate;
      result_.queued_ms =
          std::max(0.0, 1000 * Seconds(longest_) - *std::ranges::min_element(result_.round_trips_ms));
      result_.queued_bytes = rate * result_.queued_ms / 1000;
    } else if (measured_ == Phase::kBack) {
      result_.back_rate = rate;
    } else {
      result_.both_rate = rate;
    }
    // What is still under way would be counted as fast.
    if (drained && measured_ == Phase::kThere && result_.features.fill) return Measure(Phase::kBack);
    if (drained && measured_ != Phase::kBoth) return Measure(Phase::kBoth);
    Send(MakeFrame(kGoodbyeFrame, 0, "the probe is over"));
    io_.stop();
  }

  template <class Function>
  void EndPhaseAfter(milliseconds time, Function function) {
    timer_.expires_after(time);
    timer_.async_wait([function](asio::error_code error) {
      if (!error) function();
    });
  }

  void Fail(const std::string& problem) {
    if (result_.problem.empty()) result_.problem = problem;
    io_.stop();
  }

  void Read() {
    input_.async_read_some(asio::buffer(chunk_), [this](asio::error_code error, std::size_t got) {
      frames_.Feed({chunk_.data(), got});
      receipts_.OnRead(frames_.AtFrameEnd(), Receipts::Clock::now());
      Acknowledge();
      error ? Fail("the link has ended") : Read();
    });
  }

  void Acknowledge() {
    const auto now = Receipts::Clock::now();
    receipts_.Permit(0);
    const auto due = receipts_.due(now);
    if (!due) return;
    if (*due <= now) return Send(MakeAcknowledgement(receipts_.Take(now)));
    receipts_timer_.expires_at(*due);
    receipts_timer_.async_wait([this](asio::error_code error) {
      if (!error) Acknowledge();
    });
  }

  void Send(const std::string& frame) {
    queue_ += frame;
    if (!writing_) Write();
  }

  void Write() {
    asio::error_code error;
    const std::size_t sent = output_.write_some(asio::buffer(queue_), error);
    queue_.erase(0, sent);
    if (error && error != asio::error::would_block) return;  // the end of the input reports it
    writing_ = !queue_.empty();
    if (!writing_) return;
    output_.async_wait(asio::posix::stream_descriptor::wait_write, [this](asio::error_code stopped) {
      if (!stopped) Write();
    });
  }

  void OnFrame(const gxmod::FrameHeader& header) override {
    frame_ = header;
    payload_.clear();
    if (!IsControlFrame(header.type)) receipts_.OnReceived(gxmod::kFrameHeaderBytes);
  }
  void OnPayload(std::string_view piece) override {
    if (!IsControlFrame(frame_.type)) receipts_.OnReceived(piece.size());
    if (frame_.type == ConnectionType::Data) return OnFilled(piece.size());
    payload_ += piece.substr(0, 2 * kAnsweredPayload - std::min(payload_.size(), 2 * kAnsweredPayload));
  }
  void OnFrameEnd() override {
    if (frame_.type == kPongFrame) OnPong();
    if (frame_.type == kGoodbyeFrame) Fail("the far side ends: " + Escape(payload_));
    if (frame_.type != ConnectionType::TestRespond || payload_.size() < gxmod::kTestRespondHeaderBytes) return;
    phase_ == Phase::kBytes ? OnBytes(std::string_view(payload_).substr(gxmod::kTestRespondHeaderBytes))
                            : OnRateAnswer();
  }

  const Clock::time_point begin_ = Clock::now();
  Console& console_;
  BringProgress progress_;
  asio::io_context io_;
  Terminal terminal_;
  Carrier carrier_;
  asio::posix::stream_descriptor input_;
  asio::posix::stream_descriptor output_;
  asio::steady_timer timer_;
  asio::steady_timer receipts_timer_;
  std::optional<Bring> bring_;
  std::size_t sent_peer_bytes_ = 0;
  std::optional<Handshake> handshake_;
  FrameReader frames_{this};
  gxmod::FrameHeader frame_;
  std::string payload_;
  std::array<char, 64 * 1024> chunk_{};
  std::string queue_;
  bool writing_ = false;
  Receipts receipts_;

  Phase phase_ = Phase::kRoundTrips;
  Phase measured_ = Phase::kThere;
  Clock::time_point asked_;
  Clock::time_point phase_begin_;
  Clock::time_point counts_from_;  // for the rate back
  Clock::time_point last_answer_;
  struct Test {
    std::size_t size;
    Clock::time_point sent;
  };
  std::deque<Test> under_way_;  // unanswered tests
  Clock::duration longest_{};   // until an answer, of the first rate
  std::size_t in_flight_ = 0;   // sum of under_way_
  std::size_t window_ = 0;
  std::uint64_t fill_left_ = 0;  // of the last order
  std::uint64_t counted_ = 0;
  ProbeResult result_;
};

std::string FeatureNames(const Features& features) {
  std::string names;
  if (features.flow_control) names += ", flow control";
  if (features.unix_targets) names += ", unix targets";
  if (features.fill) names += ", fill";
  return names;
}

struct RoundTrip {
  double least;
  double median;
  double most;
};

RoundTrip Summary(std::vector<double> times) {
  std::sort(times.begin(), times.end());
  return {times.front(), times[times.size() / 2], times.back()};
}

}  // namespace

ProbeResult Probe(const Options& options, Console& console) { return Session(options, console).Run(); }

std::vector<std::string> ProbeTable(const ProbeResult& result) {
  std::vector<std::string> lines;
  const auto row = [&lines](const char* name, const std::string& value) {
    lines.push_back(fmt::format("{:<12}{}", name, value));
  };
  if (const auto& brought = result.brought) {
    const std::string size = FormatBytes(static_cast<double>(brought->bytes));
    row("brought", fmt::format("{} in {:.2f} s", brought->bytes == 0 ? "nothing" : size, brought->seconds));
  }
  if (result.ready_seconds) {
    row("far side", fmt::format("gx-ssh-peer, protocol {}{}; ready after {:.2f} s", kProtocolVersion,
                                FeatureNames(result.features), *result.ready_seconds));
    row("noise", result.noise.empty() ? "none" : '"' + Escape(result.noise) + '"');
  }
  if (!result.round_trips_ms.empty()) {
    const RoundTrip times = Summary(result.round_trips_ms);
    row("round trip", fmt::format("{:.2f} ms least, {:.2f} ms median, {:.2f} ms most, of {}", times.least,
                                  times.median, times.most, result.round_trips_ms.size()));
  }
  if (result.bytes_survive) row("bytes", "every value survives, there and back");
  if (result.there_rate) {
    row("rate there", FormatBytes(*result.there_rate) + "/s");
    row("queue there", fmt::format("up to {}, {:.0f} ms", FormatBytes(result.queued_bytes), result.queued_ms));
  }
  if (result.back_rate) row("rate back", FormatBytes(*result.back_rate) + "/s");
  if (result.there_rate && !result.features.fill) {
    row("rate back", "unknown: the gx-ssh-peer there is of an older release, which cannot fill the line");
  }
  if (result.both_rate) row("both ways", FormatBytes(*result.both_rate) + "/s each");
  row("verdict", result.problem.empty() ? "usable" : "not usable: " + result.problem);
  return lines;
}

JsonObject ProbeObject(const ProbeResult& result) {
  JsonObject object;
  object.Add("usable", std::uint64_t{result.problem.empty()});
  if (const auto& brought = result.brought) {
    object.Add("brought_bytes", brought->bytes).Add("brought_seconds", brought->seconds);
  }
  if (result.ready_seconds) {
    object.Add("protocol", static_cast<std::uint64_t>(kProtocolVersion));
    object.Add("ready_seconds", *result.ready_seconds).Add("noise", Escape(result.noise));
  }
  if (!result.round_trips_ms.empty()) {
    const RoundTrip times = Summary(result.round_trips_ms);
    object.Add("round_trip_min_ms", times.least).Add("round_trip_median_ms", times.median);
    object.Add("round_trip_max_ms", times.most);
  }
  object.Add("bytes_survive", std::uint64_t{result.bytes_survive});
  if (result.there_rate) {
    object.Add("there_bytes_per_second", *result.there_rate);
    object.Add("queued_bytes", static_cast<std::uint64_t>(result.queued_bytes))
        .Add("queued_ms", result.queued_ms);
  }
  if (result.back_rate) object.Add("back_bytes_per_second", *result.back_rate);
  if (result.both_rate) object.Add("both_bytes_per_second", *result.both_rate);
  if (!result.problem.empty()) object.Add("problem", result.problem);
  return object;
}

}  // namespace gxtool
