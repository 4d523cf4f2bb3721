#include "peer/session.h"

#include <algorithm>
#include <csignal>
#include <utility>

#include "link/control_frames.h"
#include "link/duration.h"
#include "link/escape.h"
#include "link/signals.h"

namespace gxtool {
namespace {

using asio::ip::tcp;
using gxmod::ConnectionType;
using std::chrono::milliseconds;

constexpr std::size_t kTextBytes = 1024;                   // of a frame that is taken as a whole
constexpr std::size_t kQueueMark = 8 * 1024 * 1024;        // for one target; past it the input waits
constexpr std::size_t kTotalQueueMark = 64 * 1024 * 1024;  // for all targets
constexpr std::size_t kOwedMark = 1024 * 1024;             // answers that the other side does not take
constexpr char kWithTheLink[] = "ended with the link";
constexpr auto kInteractiveTime = std::chrono::seconds(1);  // after a small answer; a typist's pause
constexpr auto kTick = milliseconds(50);
constexpr auto kCloseTime = std::chrono::seconds(5);  // for a target to take what is queued and to end
constexpr auto kStopTime = milliseconds(1700);        // for what is under way when a stop is asked for
constexpr auto kInputEndTime = milliseconds(1000);    // the same at the end of the input
constexpr auto kEndTime = milliseconds(200);          // for the last frames
constexpr auto kQuietTime = milliseconds(250);        // without a byte moving: nothing is under way

std::vector<tcp::endpoint> Endpoints(const std::vector<std::string>& addresses, std::uint16_t port) {
  std::vector<tcp::endpoint> endpoints;
  for (const std::string& text : addresses) {
    asio::error_code error;
    const asio::ip::address address = asio::ip::make_address(text, error);
    if (!error) endpoints.emplace_back(address, port);
  }
  return endpoints;
}

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
      phase_(options_.raw ? Phase::kRunning : Phase::kGreeting) {}

int PeerSession::Run() {
  if (phase_ == Phase::kGreeting) {
    output_.AddText(ReadyLine(Side::kPeer));
    phase_end_ = Clock::now() + options_.connect_timeout;
    NeedTick();
  }
  if (options_.handle_signals) WatchSignals();
  input_.Start();
  loop_.Run();
  for (const auto& [id, connection] : live_) connection->Abort();
  for (const ConnectionPtr& connection : closing_) connection->Abort();
  return result_;
}

void PeerSession::RequestStop() {
  asio::post(io_, [this] { Stop(); });
}

void PeerSession::Stop() {
  if (stop_requested_) return io_.stop();
  stop_requested_ = true;
  if (IsWorking()) StartDraining(kStopTime);
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
  if (phase_ == Phase::kGreeting) Greet(&bytes);
  if (phase_ == Phase::kRunning || phase_ == Phase::kDraining) frames_.Feed(bytes);
  for (const ConnectionPtr& connection : gathering_) connection->Deliver();
  gathering_.clear();
  PauseOrResumeInput();
}

void PeerSession::Greet(std::string_view* bytes) {
  bytes->remove_prefix(greeting_.Feed(*bytes));
  switch (greeting_.state()) {
    case ReadyLineFinder::State::kSearching:
      return;
    case ReadyLineFinder::State::kFound:
      phase_ = Phase::kRunning;
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
  Log(LogLevel::kError, why + (noise.empty() ? "" : "; what came ends in \"" + noise + '"'));
  EndAll({});
}

void PeerSession::OnFrame(const gxmod::FrameHeader& header) {
  frame_ = header;
  text_.clear();
  data_connection_ = nullptr;
  if (header.type != ConnectionType::Data) return;
  if (const auto found = live_.find(header.connection_id); found != live_.end())
    data_connection_ = found->second;
}

void PeerSession::OnPayload(std::string_view piece) {
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
  if (frame_.type != kPingFrame || text_.size() != kPingBytes) return;
  output_.AddControl(kPongFrame, 0, text_);
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
    return Log(LogLevel::kWarning, "a second Connect for connection " + std::to_string(id) + " was ignored");
  }
  const auto target = JudgeTarget(id, text);
  if (!target) return;
  const auto connection =
      std::make_shared<Connection>(io_, id, target->ToString(), static_cast<Connection::Owner*>(this));
  live_.emplace(id, connection);
  NeedTick();
  OpenTarget(*connection, *target);
}

// Nothing: the connection was refused.
std::optional<HostPort> PeerSession::JudgeTarget(std::uint32_t id, const std::string& text) {
  std::string why;
  auto target = options_.target ? options_.target : ParseHostPort(text, &why);
  if (target) why = WhyNot(*target);
  if (why.empty()) return target;
  Refuse(id, "refused " + (target ? target->ToString() : '"' + Escape(text) + '"') + ": " + why);
  return std::nullopt;
}

// Empty: the target may be opened.
std::string PeerSession::WhyNot(const HostPort& target) const {
  if (!options_.target && !options_.allow.Permits(target)) {
    return "to permit it, start with --allow " + target.ToString();
  }
  if (phase_ != Phase::kRunning) return "stopping";
  if (live_.size() < options_.max_connections) return {};
  return std::to_string(live_.size()) + " connections are open, more need a higher --max-connections";
}

void PeerSession::Refuse(std::uint32_t id, const std::string& line) {
  Log(LogLevel::kWarning, line);
  SendClose(id, true);
}

void PeerSession::SendClose(std::uint32_t id, bool broken) {
  if (broken && !options_.raw) output_.AddControl(kResetFrame, id);
  output_.AddControl(ConnectionType::Close, id);
}

void PeerSession::OpenTarget(Connection& connection, const HostPort& target) {
  if (target.IsNumeric()) return connection.Open(Endpoints({target.host}, target.port));
  // The question goes with the connection.
  connection.query = resolver_.Resolve(target.host, [this, &connection, target](const LookupResult& result) {
    OnResolved(connection, target, result);
  });
}

void PeerSession::OnResolved(Connection& connection, const HostPort& target, const LookupResult& result) {
  const ConnectionPtr held = connection.shared_from_this();
  std::vector<std::string> addresses;
  std::string why = result.error;
  for (const std::string& address : result.addresses) {
    if (options_.target || options_.allow.PermitsAddress(target, address)) {
      addresses.push_back(address);
    } else {
      const std::string place = HostPort{address, target.port}.ToString();
      why = "it leads to ";
      why.append(place).append("; to permit that, start with --allow ").append(place);
    }
  }
  if (addresses.empty() && connection.state() == Connection::State::kOpening) {
    return Drop(connection, "could not be opened: " + why);
  }
  connection.Open(Endpoints(addresses, target.port));
}

// The channel is this very stream, so it works; the text goes back for the asker to know its tests apart.
void PeerSession::AnswerTest() {
  std::string payload(gxmod::kTestRespondHeaderBytes + text_.size(), '\0');
  gxmod::EncodeTestResponse(0, text_.data(), static_cast<std::uint16_t>(text_.size()), payload.data());
  output_.AddControl(ConnectionType::TestRespond, 0, payload);
}

void PeerSession::OnOpen(Connection& connection) { Log(LogLevel::kInfo, Label(connection) + " is open"); }

void PeerSession::OnOpenFailed(Connection& connection, asio::error_code error) {
  Drop(connection, "could not be opened: " + error.message());
}

void PeerSession::OnReadable(Connection& connection) {
  (connection.interactive() ? interactive_ : readable_).push_back(connection.shared_from_this());
  ReadTargets();
}

void PeerSession::ReadTargets() {
  if (output_.interactive() && Clock::now() >= interactive_until_) output_.SetInteractive(false);
  ReadInTurn(interactive_, &FrameOutput::Room);
  ReadInTurn(readable_, &FrameOutput::BulkRoom);
}

// Round robin, one frame a turn, for as long as the output has room.
void PeerSession::ReadInTurn(std::deque<ConnectionPtr>& readable, std::span<char> (FrameOutput::*room)()) {
  for (std::span<char> out; !readable.empty() && !(out = (output_.*room)()).empty();) {
    const ConnectionPtr connection = std::move(readable.front());
    readable.pop_front();
    if (connection->state() == Connection::State::kOpen) ReadTarget(connection, out);
  }
}

void PeerSession::ReadTarget(const ConnectionPtr& connection, std::span<char> room) {
  const auto count = connection->Read(room);
  if (!count)
    return End(*connection, connection->broken() ? "was broken off by the target" : "ended by the target");
  if (*count != 0) output_.AddData(connection->id(), *count);
  loop_.OnRead(*count);
  if (connection->interactive()) GoFirst();
  if (*count == room.size()) {
    readable_.push_back(connection);
  } else {
    connection->WaitReadable();
  }
}

// Alone it has nobody to go before.
void PeerSession::GoFirst() {
  output_.Hurry();
  if (live_.size() == 1) return;
  interactive_until_ = Clock::now() + kInteractiveTime;
  output_.SetInteractive(true);
}

void PeerSession::End(Connection& connection, const std::string& why) {
  SendClose(connection.id(), connection.broken());
  StartClosing(connection, why);
}

void PeerSession::StartClosing(Connection& connection, const std::string& why) {
  Log(LogLevel::kInfo, Label(connection) + ' ' + why + ", " + std::to_string(connection.sent()) +
                           " bytes there, " + std::to_string(connection.received()) + " back");
  const ConnectionPtr held = connection.shared_from_this();
  live_.erase(held->id());
  held->close_until = Clock::now() + kCloseTime;
  closing_.push_back(held);
  held->Close();
  // Targets that do not end must not add up.
  if (closing_.size() > options_.max_connections) AbortOldestClosing();
  NeedTick();
}

void PeerSession::AbortOldestClosing() {
  closing_.front()->Abort();
  closing_.pop_front();
}

void PeerSession::Drop(Connection& connection, const std::string& why) {
  Log(LogLevel::kWarning, Label(connection) + ' ' + why);
  SendClose(connection.id(), true);
  const ConnectionPtr held = connection.shared_from_this();
  live_.erase(held->id());
  held->Abort();
}

void PeerSession::OnGone(Connection& connection) {
  closing_.erase(std::find(closing_.begin(), closing_.end(), connection.shared_from_this()));
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
  ReadTargets();
  CheckPhase(Clock::now());
}

void PeerSession::OnOutputBroken() {
  if (IsWorking()) return Lose(LogLevel::kInfo, "nobody reads the stream any more");
  if (phase_ == Phase::kDraining) EndAll({});
  CheckPhase(Clock::now());
}

void PeerSession::OnQuiet() {
  // What waits to be written shows as well that this side lives.
  if (IsWorking() && output_.idle()) output_.AddControl(kPingFrame, 0, std::string(kPingBytes, '\0'));
}

void PeerSession::OnSilent() {
  if (!IsWorking()) return;
  const std::string time = FormatDuration(options_.keepalive * options_.keepalive_count);
  Lose(LogLevel::kError, "nothing came for " + time + ": the link is lost");
}

void PeerSession::Lose(LogLevel level, const std::string& why) {
  result_ = kPeerLinkLost;
  Log(level, why);
  EndAll({});
}

// Each mark is let go at its half, so that the input does not stop and start for every byte.
void PeerSession::PauseOrResumeInput() {
  const std::size_t part = input_.paused() ? 2 : 1;
  const bool wait = over_mark_ != 0 || queued_ > kTotalQueueMark / part || output_.owed() > kOwedMark / part;
  if (wait == input_.paused()) return;
  Log(LogLevel::kDebug, wait ? "the input waits for a slow target" : "the input goes on");
  if (!wait) return input_.Resume();
  paused_since_ = Clock::now();
  input_.Pause();
  NeedTick();
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
  while (!closing_.empty() && closing_.front()->close_until <= now) AbortOldestClosing();
  CheckPhase(now);
  const bool idle_counts = options_.idle_timeout.count() != 0 && !live_.empty();
  if (opening || idle_counts || !closing_.empty() || input_.paused() || phase_ != Phase::kRunning) NeedTick();
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
      Drop(connection, "could not be opened within " + FormatDuration(options_.connect_timeout));
    }
  } else if (input_.paused() && connection.queued() != 0 &&
             now - std::max(paused_since_, connection.last_taken()) >= options_.stall_timeout) {
    Drop(connection, "was cut: its target takes nothing, and all others wait for it");
  } else if (over(options_.idle_timeout, still)) {
    End(connection, "was idle for " + FormatDuration(options_.idle_timeout));
  }
}

void PeerSession::OnEnd() {
  if (phase_ == Phase::kGreeting) return FailGreeting("the stream ended before the ready line of gx-ssh");
  // While the input waited, what is unread is lost with its writer.
  if (!input_.paused() && !frames_.AtFrameEnd()) {
    result_ = kPeerLinkLost;
    Log(LogLevel::kError, "the stream ended inside a frame");
  }
  input_.Stop();
  input_ended_ = true;
  for (const auto& [id, connection] : live_) connection->FinishWriting();
  IsWorking() ? StartDraining(kInputEndTime) : CheckPhase(Clock::now());
}

void PeerSession::StartDraining(Clock::duration time) {
  phase_ = Phase::kDraining;
  phase_end_ = Clock::now() + time;
  NeedTick();
  CheckPhase(Clock::now());
}

void PeerSession::CheckPhase(Clock::time_point now) {
  if (phase_ == Phase::kGreeting && options_.connect_timeout.count() != 0 && now >= phase_end_) {
    FailGreeting("no ready line of gx-ssh within " + FormatDuration(options_.connect_timeout) +
                 ": gx-ssh starts this program itself; for another far side use --raw on both");
  }
  if (phase_ == Phase::kDraining && (now >= phase_end_ || NothingUnderWay(now))) {
    EndAll(stop_requested_ ? "stopped" : "end of input");
  }
  if (phase_ != Phase::kEnding) return;
  if (now >= phase_end_ || (live_.empty() && closing_.empty() && output_.idle())) io_.stop();
}

bool PeerSession::NothingUnderWay(Clock::time_point now) const {
  if (input_ended_) return live_.empty() && closing_.empty();
  return interactive_.empty() && readable_.empty() && output_.idle() &&
         std::all_of(live_.begin(), live_.end(), [now](const auto& entry) {
           const Connection& connection = *entry.second;
           return connection.state() == Connection::State::kOpen && connection.queued() == 0 &&
                  now - connection.last_move() >= kQuietTime;
         });
}

void PeerSession::EndAll(std::string_view reason) {
  phase_ = Phase::kEnding;
  phase_end_ = Clock::now() + kEndTime;
  input_.Stop();
  // The goodbye closes them all. A Close of its own would look like the target's end.
  while (!live_.empty()) {
    Connection& connection = *live_.begin()->second;
    options_.raw ? End(connection, kWithTheLink) : StartClosing(connection, kWithTheLink);
  }
  if (!options_.raw && result_ == kPeerEnded) output_.AddControl(kGoodbyeFrame, 0, reason);
  NeedTick();
  asio::post(io_, [this] { CheckPhase(Clock::now()); });  // there may be nothing to wait for
}

void PeerSession::Log(LogLevel level, const std::string& line) const {
  if (options_.log) options_.log(level, line);
}

}  // namespace gxtool
