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
#include <optional>
#include <utility>

#include "common/control_frames.h"
#include "common/escape.h"
#include "common/frame_reader.h"
#include "common/receipts.h"
#include "gx-ssh/bring.h"
#include "gx-ssh/carrier.h"
#include "gx-ssh/handshake.h"
#include "gx-ssh/rate_meter.h"
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
// The time limit for each rate: this time plus this many round trips, in which the window can grow to any size.
constexpr milliseconds kRateTime{10'000};
constexpr int kRateRoundTrips = 20;

constexpr std::size_t kLeastPayload = 256;
constexpr std::size_t kLargestPayload = 64 * 1024;
constexpr std::size_t kAnsweredPayload = 1024;  // the far side returns at most this much of a test's text

double Seconds(Clock::duration time) { return std::chrono::duration<double>(time).count(); }

std::string EveryByte() {
  std::string bytes;
  for (int value = 0; value < 256; ++value) bytes += static_cast<char>(value);
  return bytes + std::string(bytes.rbegin(), bytes.rend());
}

// Pings, which only gx-ssh-peer answers, measure the round trip. Channel tests, which every far side answers,
// measure the rest, except for the rate back, for which the far side fills the line. As in normal operation,
// the far side gets acknowledgements, so it sends no more than the line carries.
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
  // In order of time. In kBoth the far side measures the line back, so kBack begins with a full line.
  enum class Phase { kRoundTrips, kBytes, kThere, kBoth, kBack };

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
    ping_ = PingPayload(static_cast<std::uint64_t>(asked_.time_since_epoch().count()));
    Send(MakeFrame(kPingFrame, 0, ping_));
  }

  void OnPong() {
    // Ignore pongs without a ping: each would make this side send another ping.
    if (ping_.empty()) return;
    if (payload_ != ping_) return OnWrongPong();
    ping_.clear();
    if (phase_ == Phase::kBytes) return;
    if (phase_ != Phase::kRoundTrips) return drains_ ? EndMeasure() : OnRound();
    result_.round_trips_ms.push_back(1000 * Seconds(Clock::now() - asked_));
    result_.round_trips_ms.size() < kPings ? Ping() : TestBytes();
  }

  // A line that changes bytes changes those of pings, too. The test of all bytes tells which.
  void OnWrongPong() {
    if (phase_ == Phase::kRoundTrips) TestBytes();
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
    if (result_.round_trips_ms.empty()) return Fail("pongs are not those of the pings");
    Measure(Phase::kThere);
  }

  void Measure(Phase phase) {
    phase_ = phase;
    drains_ = false;
    const double round_trip = *std::ranges::min_element(result_.round_trips_ms) / 1000;
    meter_.emplace(Clock::now(), delivered(), round_trip);
    const auto bound = kRateTime + std::chrono::duration_cast<milliseconds>(
                                       std::chrono::duration<double>(kRateRoundTrips * round_trip));
    EndPhaseAfter(bound, [this, bound] { CutShort(Seconds(bound)); });
    if (phase == Phase::kBack) AskForFill(kMostFillBytes);
    FillWindow();
    Ping();
  }

  std::uint64_t delivered() const { return phase_ == Phase::kBack ? receipts_.received() : answered_; }

  void OnRound() {
    meter_->OnRound(Clock::now(), delivered());
    if (meter_->done()) return Drain();
    FillWindow();
    Ping();
  }

  void AskForFill(std::uint64_t bytes) {
    fill_left_ = bytes;
    Send(MakeFrame(kFillFrame, 0, FillPayload(bytes)));
  }

  void OnFilled(std::size_t bytes) {
    fill_left_ -= std::min<std::uint64_t>(bytes, fill_left_);
    if (phase_ == Phase::kBack && !drains_ && fill_left_ < kMostFillBytes / 2) AskForFill(kMostFillBytes);
  }

  // Sends only what the stream takes at once, so that the queue forms on the way and not in this program.
  void FillWindow() {
    if ((phase_ != Phase::kThere && phase_ != Phase::kBoth) || drains_) return;
    while (in_flight_ < meter_->window() && !writing_) {
      const std::size_t most = phase_ == Phase::kBoth ? kAnsweredPayload : kLargestPayload;
      const std::size_t size = std::clamp(meter_->window() / 4, kLeastPayload, most);
      under_way_.push_back(gxmod::kFrameHeaderBytes + size);
      in_flight_ += under_way_.back();
      Send(MakeFrame(ConnectionType::TestChannel, 0, std::string(size, 'r')));
    }
  }

  void OnRateAnswer() {
    if (under_way_.empty()) return;
    in_flight_ -= under_way_.front();
    answered_ += under_way_.front();
    under_way_.pop_front();
    FillWindow();
  }

  // Waits until everything under way has arrived, so that the next rate does not count it: the pong comes last.
  void Drain() {
    TakeRate();
    drains_ = true;
    if (phase_ == Phase::kBack) AskForFill(0);
    Ping();
  }

  void TakeRate() {
    const double rate = meter_->rate();
    if (phase_ == Phase::kThere) {
      result_.there_rate = rate;
      if (meter_->longest_round_s() == 0) return;
      const double queued_s =
          meter_->longest_round_s() - *std::ranges::min_element(result_.round_trips_ms) / 1000;
      result_.queued_ms = std::max(0.0, 1000 * queued_s);
      result_.queued_bytes = rate * *result_.queued_ms / 1000;
    } else if (phase_ == Phase::kBoth) {
      result_.both_rate = rate;
    } else {
      result_.back_rate = rate;
    }
  }

  // The rate back needs Features::fill.
  bool is_last() const { return phase_ == Phase::kBack || (phase_ == Phase::kBoth && !result_.features.fill); }

  void EndMeasure() {
    if (is_last()) return Finish();
    Measure(phase_ == Phase::kThere ? Phase::kBoth : Phase::kBack);
  }

  void CutShort(double seconds) {
    if (meter_->rate() == 0) return Fail("the far side has stopped answering");
    if (!drains_) TakeRate();
    if (!drains_ || !is_last()) {
      result_.cut_short =
          fmt::format("the {} took more than {:.0f} s: the line is too slow or too long", PhaseName(), seconds);
    }
    Finish();
  }

  const char* PhaseName() const {
    if (phase_ == Phase::kThere) return "rate there";
    return phase_ == Phase::kBoth ? "rate both ways" : "rate back";
  }

  void Finish() {
    Send(MakeFrame(kGoodbyeFrame, 0, "the probe is over"));
    io_.stop();
  }

  template <class Function>
  void EndPhaseAfter(milliseconds time, Function function) {
    timer_.expires_after(time);
    timer_.async_wait([this, function, phase = phase_](asio::error_code error) {
      // The timer may have expired just before it was set again.
      if (!error && phase == phase_) function();
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
      if (stopped) return;
      Write();
      FillWindow();
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
    if (io_.stopped()) return;  // the rest of a read, behind a failure
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
  Clock::time_point asked_;  // when the last ping was sent
  std::string ping_;         // its payload; empty once it is answered
  std::optional<RateMeter> meter_;
  bool drains_ = false;                // the rate of this phase is measured
  std::deque<std::size_t> under_way_;  // sizes of unanswered tests
  std::size_t in_flight_ = 0;          // sum of under_way_
  std::uint64_t answered_ = 0;         // bytes of tests
  std::uint64_t fill_left_ = 0;        // of the last order
  ProbeResult result_;
};

}  // namespace

ProbeResult Probe(const Options& options, Console& console) { return Session(options, console).Run(); }

}  // namespace gxtool
