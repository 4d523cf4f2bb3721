#include "peer/session.h"

#include <algorithm>
#include <csignal>
#include <utility>

#include "common/control_frames.h"
#include "common/duration.h"
#include "common/escape.h"
#include "common/ignored_signal.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;
using std::chrono::milliseconds;

constexpr std::size_t kTextBytes = 1024;                   // of a frame that is handled as a whole
constexpr std::size_t kQueueMark = 8 * 1024 * 1024;        // for one target; above it the input waits
constexpr std::size_t kTotalQueueMark = 64 * 1024 * 1024;  // for all targets
constexpr std::size_t kOwedMark = 1024 * 1024;             // answers that the other side does not read
constexpr std::uint64_t kToldComplaints = 100;
constexpr char kWithTheLink[] = "ended with the link";
constexpr auto kTick = milliseconds(50);
constexpr auto kQuietTime = milliseconds(250);  // without moving a byte: nothing is pending

std::string Label(const Connection& connection) {
  return "connection " + std::to_string(connection.id()) + " to " + connection.name();
}

}  // namespace

PeerSession::PeerSession(PeerOptions options, int read_fd, int write_fd)
    : options_(std::move(options)),
      read_fd_(read_fd),
      write_fd_(write_fd),
      input_(io_, read_fd_.Duplicate(), this),
      output_(io_, write_fd_.Duplicate(), this),
      keepalive_(io_, options_.raw ? milliseconds(0) : options_.keepalive, options_.keepalive_count, this),
      tick_(io_),
      resolver_(io_, options_.names),
      admission_(options_),
      closing_(options_.max_connections),
      receipts_timer_(io_),
      shutdown_(options_.raw, options_.end_times) {}

int PeerSession::Run() {
  if (shutdown_.phase() == Phase::kGreeting) {
    output_.AddText(Greeting(Side::kPeer));
    shutdown_.Greet(options_.connect_timeout);
    NeedTick();
  }
  if (options_.handle_signals) WatchSignals();
  input_.Start();
  loop_.Run();
  for (const auto& [id, connection] : live_) connection->Abort();
  closing_.AbortAll();
  return result_;
}

void PeerSession::RequestStop() {
  asio::post(io_, [this] { Stop(); });
}

void PeerSession::Stop() {
  if (!shutdown_.RequestStop()) return io_.stop();
  StopAdmitting();
}

void PeerSession::WatchSignals() {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    if (!IsIgnored(number)) signals_.add(number);
  }
  WaitForSignal();
}

void PeerSession::WaitForSignal() {
  signals_.async_wait([this](asio::error_code error, int) {
    if (error) return;
    Stop();
    WaitForSignal();
  });
}

void PeerSession::OnBytes(std::string_view bytes) {
  keepalive_.OnReceived();
  loop_.OnRead(bytes.size());
  if (shutdown_.phase() == Phase::kGreeting) Greet(&bytes);
  if (shutdown_.IsCarrying()) frames_.Feed(bytes);
  for (const ConnectionPtr& connection : gathering_) connection->Deliver();
  gathering_.clear();
  if (std::exchange(line_moved_, false)) SendData();
  receipts_.OnRead(frames_.AtFrameEnd(), Clock::now());
  PauseOrResumeInput();
}

void PeerSession::Greet(std::string_view* bytes) {
  bytes->remove_prefix(greeting_.Feed(*bytes));
  switch (greeting_.state()) {
    case ReadyLineFinder::State::kSearching:
      return;
    case ReadyLineFinder::State::kFound:
      shutdown_.Run();
      if (kOwnFeatures.flow_control && greeting_.features().flow_control) receipts_.Start();
      return keepalive_.Start();
    case ReadyLineFinder::State::kOtherVersion:
      return FailGreeting("gx-ssh speaks version " + greeting_.version() +
                          " of the protocol, this program version " + std::to_string(kProtocolVersion) +
                          ": install the same release on both sides");
    case ReadyLineFinder::State::kNotClean:
      return FailGreeting(
          "a terminal lies in between and changes bytes: use ssh -T, docker exec -i without -t");
    case ReadyLineFinder::State::kTooMuchNoise:
      return FailGreeting("no ready line of gx-ssh among the first " + std::to_string(kNoiseBytes) + " bytes");
  }
}

void PeerSession::FailGreeting(const std::string& why) {
  result_ = kPeerNotReady;
  const std::string noise = Escape(greeting_.noise());
  Log(LogLevel::kError, why + (noise.empty() ? "" : "; the last received bytes are \"" + noise + '"'));
  EndAll({});
}

void PeerSession::OnFrame(const gxmod::FrameHeader& header) {
  frame_ = header;
  text_.clear();
  data_connection_ = nullptr;
  if (!IsControlFrame(header.type)) receipts_.OnReceived(gxmod::kFrameHeaderBytes);
  if (header.type != ConnectionType::Data) return;
  if (const auto found = live_.find(header.connection_id); found != live_.end())
    data_connection_ = found->second;
}

void PeerSession::OnPayload(std::string_view piece) {
  if (!IsControlFrame(frame_.type)) receipts_.OnReceived(piece.size());
  if (data_connection_ != nullptr) {
    if (!data_connection_->gathering()) gathering_.push_back(data_connection_);
    data_connection_->Gather(piece);
  } else if (frame_.type != ConnectionType::Data) {
    text_.append(piece.substr(0, kTextBytes - text_.size()));
  }
}

void PeerSession::OnFrameEnd() {
  data_connection_ = nullptr;
  switch (frame_.type) {
    case ConnectionType::Connect:
      return Connect(frame_.connection_id, text_);
    case ConnectionType::TestChannel:
      return AnswerTest();
    case ConnectionType::Close:
      if (const auto found = live_.find(frame_.connection_id); found != live_.end()) {
        found->second->Deliver();
        StartClosing(*found->second, "ended by the other side");
      }
      return;
    default:
      return OnControlFrame();
  }
}

void PeerSession::OnControlFrame() {
  if (frame_.type == kGoodbyeFrame) Log(LogLevel::kInfo, "the other side ends: " + Escape(text_));
  if (frame_.type == kEndOfInputFrame) EndOfInput();
  if (frame_.type == kAcknowledgementFrame && !options_.raw) OnAcknowledgement();
  if (frame_.type == kFillFrame && !options_.raw) OnFill();
  if (frame_.type == kPongFrame && text_.size() == kPingBytes) {
    output_.pace().OnReceived(SentBefore(text_));
    line_moved_ = true;
  }
  if (frame_.type != kPingFrame || text_.size() != kPingBytes) return;
  output_.AddControl(kPongFrame, 0, text_);
}

void PeerSession::OnAcknowledgement() {
  const auto totals = ReadAcknowledgement(text_);
  if (!totals) return;
  line_moved_ = true;
  if (output_.pace().OnAcknowledgement(*totals) || std::exchange(doubted_, true)) return;
  Complain("the other side acknowledges bytes that it cannot have got");
}

void PeerSession::OnFill() {
  fill_ = ReadFill(text_).value_or(fill_);
  SendData();
}

void PeerSession::SendData() {
  scheduler_.Run();
  if (shutdown_.phase() != Phase::kRunning) return;
  for (std::span<char> room; fill_ > 0 && !(room = output_.BulkRoom()).empty();) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(room.size(), fill_));
    std::fill_n(room.begin(), count, '.');
    output_.AddData(0, count);
    output_.FlushSoon();
    fill_ -= count;
    OnDataQueued();
  }
}

void PeerSession::EndOfInput() {
  const auto found = live_.find(frame_.connection_id);
  if (found == live_.end()) return;
  found->second->answer_when_written = true;
  found->second->Deliver();
  found->second->FinishWriting();
}

void PeerSession::OnWritten(Connection& connection) {
  if (connection.answer_when_written) output_.AddControl(kEndOfInputFrame, connection.id());
}

void PeerSession::Connect(std::uint32_t id, const std::string& text) {
  if (live_.contains(id)) {
    return Complain("a second Connect for connection " + std::to_string(id) + " was ignored");
  }
  const auto [target, refusal] = admission_.Judge(text, live_.size());
  if (!target) {
    Complain(refusal);
    return SendReset(id, refusal);
  }
  const auto connection =
      std::make_shared<Connection>(io_, id, Escape(ToString(*target)), static_cast<Connection::Owner*>(this));
  live_.emplace(id, connection);
  NeedTick();
  OpenTarget(*connection, *target);
}

void PeerSession::SendClose(std::uint32_t id) { output_.AddControl(ConnectionType::Close, id); }

void PeerSession::SendReset(std::uint32_t id, const std::string& why_not_opened) {
  if (!options_.raw) output_.AddControl(kResetFrame, id, Escape(why_not_opened).substr(0, kReasonBytes));
  SendClose(id);
}

void PeerSession::OpenTarget(Connection& connection, const Destination& destination) {
  if (const auto* const socket = std::get_if<UnixSocket>(&destination)) {
    return connection.Open({asio::local::stream_protocol::endpoint(socket->path)});
  }
  const auto& target = std::get<HostPort>(destination);
  if (target.IsNumeric()) return connection.Open(EndpointsOf({target.host}, target.port));
  // The query is destroyed with the connection.
  connection.query = resolver_.Resolve(target.host, [this, &connection, target](const LookupResult& result) {
    OnResolved(connection, target, result);
  });
}

void PeerSession::OnResolved(Connection& connection, const HostPort& target, const LookupResult& result) {
  const ConnectionPtr held = connection.shared_from_this();
  const auto [endpoints, why_none] = admission_.JudgeAddresses(target, result);
  if (endpoints.empty() && connection.state() == Connection::State::kOpening) {
    return DropUnopened(connection, why_none);
  }
  connection.Open(endpoints);
}

// The channel is this stream, so it works. The text is returned so that the sender can match its tests.
void PeerSession::AnswerTest() {
  std::string payload(gxmod::kTestRespondHeaderBytes + text_.size(), '\0');
  gxmod::EncodeTestResponse(0, text_.data(), static_cast<std::uint16_t>(text_.size()), payload.data());
  output_.AddControl(ConnectionType::TestRespond, 0, payload);
}

void PeerSession::OnOpen(Connection& connection) { Log(LogLevel::kInfo, Label(connection) + " is open"); }

void PeerSession::OnOpenFailed(Connection& connection, asio::error_code error) {
  DropUnopened(connection, error.message());
}

void PeerSession::OnReadable(Connection& connection) { scheduler_.Add(connection); }

void PeerSession::OnTargetEnd(Connection& connection) {
  End(connection, connection.broken() ? "was broken off by the target" : "ended by the target");
}

// Sends a due acknowledgement together with this data, which saves a system call.
void PeerSession::OnDataQueued() {
  if (!receipts_.has_news()) return;
  const Clock::time_point now = Clock::now();
  if (receipts_.rides(now)) output_.Acknowledge(receipts_.Take(now, true));
}

void PeerSession::End(Connection& connection, const std::string& why) {
  connection.broken() ? SendReset(connection.id(), {}) : SendClose(connection.id());
  StartClosing(connection, why);
}

void PeerSession::StartClosing(Connection& connection, const std::string& why) {
  Log(LogLevel::kInfo, Label(connection) + ' ' + why + ", " + std::to_string(connection.sent()) +
                           " bytes there, " + std::to_string(connection.received()) + " back");
  const ConnectionPtr held = connection.shared_from_this();
  live_.erase(held->id());
  closing_.Add(held);
  NeedTick();
}

void PeerSession::Drop(Connection& connection, const std::string& why) {
  Complain(Label(connection) + ' ' + why);
  SendReset(connection.id(), {});
  Forget(connection);
}

void PeerSession::DropUnopened(Connection& connection, const std::string& why) {
  Complain(Label(connection) + " could not be opened: " + why);
  SendReset(connection.id(), why);
  Forget(connection);
}

void PeerSession::Forget(Connection& connection) {
  const ConnectionPtr held = connection.shared_from_this();
  live_.erase(held->id());
  held->Abort();
}

void PeerSession::OnGone(Connection& connection) {
  closing_.Remove(connection);
  CheckPhase(Clock::now());
}

void PeerSession::OnQueued(Connection& connection, std::ptrdiff_t delta) {
  queued_ += static_cast<std::size_t>(delta);
  const bool was_over = connection.over_mark;
  if (connection.queued() > kQueueMark) connection.over_mark = true;
  if (connection.queued() <= kQueueMark / 2) connection.over_mark = false;
  over_mark_ += static_cast<std::size_t>(connection.over_mark) - static_cast<std::size_t>(was_over);
  if (delta < 0) PauseOrResumeInput();
}

void PeerSession::OnOutputProgress() {
  PauseOrResumeInput();
  SendData();
  CheckPhase(Clock::now());
}

void PeerSession::OnOutputBroken() {
  if (shutdown_.IsWorking()) return Lose(LogLevel::kInfo, "gx-ssh no longer reads the stream");
  if (shutdown_.phase() == Phase::kDraining) EndAll({});
  CheckPhase(Clock::now());
}

void PeerSession::OnQuiet() {
  // Queued output also shows that this side is alive.
  if (shutdown_.IsWorking() && output_.idle())
    output_.AddControl(kPingFrame, 0, PingPayload(output_.pace().sent()));
}

void PeerSession::OnSilent() {
  if (!shutdown_.IsWorking()) return;
  const std::string time = FormatDuration(options_.keepalive * options_.keepalive_count);
  Lose(LogLevel::kError, "nothing came for " + time + ": the link is lost");
}

void PeerSession::Lose(LogLevel level, const std::string& why) {
  result_ = kPeerLinkLost;
  Log(level, why);
  EndAll({});
}

// Each limit is released at half of it, so that the input does not stop and start for every byte.
void PeerSession::PauseOrResumeInput() {
  const std::size_t part = holds_ ? 2 : 1;
  const bool answers_wait = output_.owed() > kOwedMark / part;
  const bool holds = over_mark_ != 0 || queued_ > kTotalQueueMark / part || answers_wait;
  if (holds != std::exchange(holds_, holds)) {
    Log(LogLevel::kDebug, holds ? "the input waits for a slow target" : "the input continues");
    holds_since_ = Clock::now();
    NeedTick();
  }
  if (!holds) receipts_.Permit(0);
  // A sender that respects its permission is still read, for its acknowledgements.
  const bool pause = holds && (!receipts_.wanted() || receipts_.exceeded() || answers_wait);
  if (pause != input_.paused()) pause ? input_.Pause() : input_.Resume();
  Acknowledge();
}

void PeerSession::Acknowledge() {
  const Clock::time_point now = Clock::now();
  const auto due = receipts_.due(now);
  if (!due || !shutdown_.IsCarrying()) return;
  if (*due <= now) return output_.Acknowledge(receipts_.Take(now, false));
  if (receipts_timer_armed_ && receipts_timer_.expiry() <= *due) return;
  receipts_timer_armed_ = true;
  receipts_timer_.expires_at(*due);
  receipts_timer_.async_wait([this](asio::error_code error) {
    if (error) return;
    receipts_timer_armed_ = false;
    Acknowledge();
  });
}

void PeerSession::NeedTick() {
  if (tick_armed_) return;
  tick_armed_ = true;
  tick_.expires_after(kTick);
  tick_.async_wait([this](asio::error_code) { OnTick(); });
}

void PeerSession::OnTick() {
  tick_armed_ = false;
  const Clock::time_point now = Clock::now();
  std::vector<ConnectionPtr> connections;
  for (const auto& [id, connection] : live_) connections.push_back(connection);
  bool opening = false;
  for (const ConnectionPtr& connection : connections) {
    CheckConnection(*connection, now);
    opening = opening || connection->state() == Connection::State::kOpening;
  }
  closing_.AbortLate(now);
  CheckPhase(now);
  const bool idle_counts = options_.idle_timeout.count() != 0 && !live_.empty();
  if (opening || idle_counts || !closing_.empty() || holds_ || shutdown_.phase() != Phase::kRunning) {
    NeedTick();
  }
}

void PeerSession::CheckConnection(Connection& connection, Clock::time_point now) {
  const auto over = [](milliseconds limit, Clock::duration time) {
    return limit.count() != 0 && time >= limit;
  };
  const auto still = now - connection.last_move();
  if (!live_.contains(connection.id())) return;
  if (connection.state() == Connection::State::kOpening) {
    if (options_.connect_timeout.count() != 0) connection.Hurry(options_.connect_timeout);
    if (over(options_.connect_timeout, still)) {
      DropUnopened(connection, "no answer within " + FormatDuration(options_.connect_timeout));
    }
  } else if (holds_ && connection.queued() != 0 &&
             now - std::max(holds_since_, connection.last_taken()) >= options_.stall_timeout) {
    Drop(connection, "was cut: its target takes nothing, and all others wait for it");
  } else if (over(options_.idle_timeout, still)) {
    End(connection, "was idle for " + FormatDuration(options_.idle_timeout));
  }
}

void PeerSession::OnEnd() {
  if (shutdown_.phase() == Phase::kGreeting)
    return FailGreeting("the stream ended before the ready line of gx-ssh");
  // While the input was paused, unread bytes may be lost with their writer.
  if (!input_.paused() && !frames_.AtFrameEnd()) {
    result_ = kPeerLinkLost;
    Log(LogLevel::kError, "the stream ended inside a frame");
  }
  input_.Stop();
  output_.pace().End();  // no further acknowledgement will arrive
  for (const auto& [id, connection] : live_) connection->FinishWriting();
  shutdown_.EndInput();
  SendData();
  StopAdmitting();
}

void PeerSession::StopAdmitting() {
  admission_.Stop();
  NeedTick();
  CheckPhase(Clock::now());
}

void PeerSession::CheckPhase(Clock::time_point now) {
  if (shutdown_.phase() == Phase::kRunning) return;
  const bool done = live_.empty() && closing_.empty() && output_.idle();
  switch (shutdown_.Next(now, IsUnderWay(now), done)) {
    case Shutdown::Step::kNothing:
      return;
    case Shutdown::Step::kGiveGreetingUp:
      return FailGreeting("no ready line of gx-ssh within " + FormatDuration(options_.connect_timeout) +
                          ": gx-ssh starts this program itself; for another far side use --raw on both");
    case Shutdown::Step::kEndAll:
      return EndAll(shutdown_.reason());
    case Shutdown::Step::kLeave:
      return io_.stop();
  }
}

bool PeerSession::IsUnderWay(Clock::time_point now) const {
  if (shutdown_.input_ended()) return !live_.empty() || !closing_.empty();
  return !scheduler_.idle() || !output_.idle() ||
         std::any_of(live_.begin(), live_.end(), [now](const auto& entry) {
           const Connection& connection = *entry.second;
           return connection.state() != Connection::State::kOpen || connection.queued() != 0 ||
                  now - connection.last_move() < kQuietTime;
         });
}

void PeerSession::EndAll(std::string_view reason) {
  shutdown_.End();
  input_.Stop();
  // The goodbye closes all connections; a Close frame would look like the target's end.
  while (!live_.empty()) {
    Connection& connection = *live_.begin()->second;
    options_.raw ? End(connection, kWithTheLink) : StartClosing(connection, kWithTheLink);
  }
  if (!options_.raw && result_ == kPeerEnded) output_.AddControl(kGoodbyeFrame, 0, reason);
  NeedTick();
  asio::post(io_, [this] { CheckPhase(Clock::now()); });  // there may be nothing to wait for
}

void PeerSession::Complain(const std::string& line) {
  Log(complaints_ < kToldComplaints ? LogLevel::kWarning : LogLevel::kInfo, line);
  if (++complaints_ == kToldComplaints)
    Log(LogLevel::kWarning, "further messages of this kind appear only with -v");
}

void PeerSession::Log(LogLevel level, const std::string& line) const {
  if (options_.log) options_.log(level, line);
}

}  // namespace gxtool
