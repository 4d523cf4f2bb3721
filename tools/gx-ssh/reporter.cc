#include "gx-ssh/reporter.h"

#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>
#include <utility>

namespace gxtool {
namespace {

constexpr std::chrono::milliseconds kTick{500};
constexpr std::chrono::seconds kStatisticsOfEvents{10};

const std::string kStarting = "starting";

bool HasTerminal(const Options& options) {
  const char* terminal = std::getenv("TERM");
  // The command of --run, or the program behind -W, uses the terminal.
  const bool ours = !options.quiet && !options.background && !options.standard_io && options.run.empty();
  return ours && isatty(STDERR_FILENO) && terminal != nullptr && std::string_view(terminal) != "dumb";
}

std::string EventLine(const char* event, const JsonObject& details) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  JsonObject object;
  object.Add("event", event).Add("time", std::chrono::duration<double>(now).count()).Add(details);
  return object.Text() + "\n";
}

}  // namespace

BringProgress::BringProgress(const Options& options, Console& console)
    : console_(console), live_(HasTerminal(options)) {}

void BringProgress::OnSent(const std::string& architecture, std::size_t sent, std::size_t total) {
  if (!std::exchange(told_, true)) {
    spdlog::info("sends gx-ssh-peer for {} there, {}", architecture, FormatBytes(static_cast<double>(total)));
  }
  if (!live_) return;
  console_.SetStatus("sent " + FormatBytes(static_cast<double>(sent)) + " of " +
                     FormatBytes(static_cast<double>(total)));
}

Reporter::Reporter(asio::io_context& io, const Options& options, Console& console, int output,
                   const Traffic& traffic, Line line)
    : options_(options),
      console_(console),
      output_(output, [](std::uint64_t lost) { return EventLine("lost", JsonObject().Add("events", lost)); }),
      traffic_(traffic),
      line_(std::move(line)),
      live_(HasTerminal(options)),
      timer_(io),
      statistics_timer_(io),
      statistics_time_(
          options.stats.value_or(options.json ? kStatisticsOfEvents : std::chrono::milliseconds(0))),
      bring_progress_(options, console) {
  route_ = options_.local ? "far side inside" : ProgramName(options_.carrier.front());
  if (live_) Tick();
  if (statistics_time_.count() > 0) AwaitStatistics();
}

void Reporter::OnListening(const std::vector<Forward>& forwards) {
  const Forward& first = forwards.front();
  const std::string more = forwards.size() > 1 ? " and " + std::to_string(forwards.size() - 1) + " more" : "";
  route_ = AddressText(first.at) + " -> " + first.target + more + " through " + route_;
  PrintOut(Announcement(options_.print, forwards, options_.name), OutputQueue::Kind::kNews);
  for (const Forward& forward : forwards) Emit("listening", ForwardObject(forward));
}

void Reporter::OnLink(const std::string& state, const std::string& detail) {
  link_state_ = state;
  bring_progress_.Restart();
  if (state == kStarting) console_.SetStatus({});
  link_since_ = Clock::now();
  JsonObject object;
  object.Add("state", state);
  if (!detail.empty()) object.Add("detail", detail);
  Emit("link", object);
}

bool Reporter::TellsConnections() const { return options_.json || spdlog::should_log(spdlog::level::debug); }

void Reporter::OnConnection(const Traffic::Change& change) {
  Traffic::Connection connection = change.connection;
  // The module's own port has one target, unless the far side may open further ports.
  if (!options_.HasRelay() && !options_.allow_channel_list) connection.route.target = options_.target;
  JsonObject object;
  object.Add("connection", std::uint64_t{connection.id});
  if (change.opened) return Emit("open", object);
  spdlog::debug("{}", ConnectionLine(connection));
  object.Add("sent", connection.sent).Add("received", connection.received).Add("seconds", connection.Seconds());
  Emit("close", object);
}

void Reporter::OnExit(int status, const std::string& reason) {
  timer_.cancel();
  statistics_timer_.cancel();
  console_.SetStatus({});
  if (options_.json) EmitStatistics(traffic_.totals());
  JsonObject object;
  Emit("exit", object.Add("status", static_cast<std::uint64_t>(status)).Add("reason", reason));
}

void Reporter::PrintOut(const std::string& text, OutputQueue::Kind kind) {
  if (text.empty()) return;
  // Standard output and standard error may be one terminal; the next tick shows the status below this text.
  console_.SetStatus({});
  output_.Add(text, kind);
}

void Reporter::PrintTable() {
  // Shown with -q, too, because the user asked for it.
  for (const std::string& line : Table(traffic_.open(), traffic_.totals())) spdlog::critical("{}", line);
}

void Reporter::Tick() {
  const Traffic::Totals totals = traffic_.totals();
  // A starting carrier may ask for a password and needs the terminal.
  if (link_state_ != kStarting) ShowStatus(totals);
  last_totals_ = totals;
  timer_.expires_after(kTick);
  timer_.async_wait([this](asio::error_code error) {
    if (!error) Tick();
  });
}

void Reporter::AwaitStatistics() {
  statistics_timer_.expires_after(statistics_time_);
  statistics_timer_.async_wait([this](asio::error_code error) {
    if (error) return;
    const Traffic::Totals totals = traffic_.totals();
    options_.json ? EmitStatistics(totals) : spdlog::info("{}", TotalsLine(totals));
    AwaitStatistics();
  });
}

void Reporter::ShowStatus(const Traffic::Totals& totals) {
  const auto rate = [](std::uint64_t now, std::uint64_t before) {
    return static_cast<double>(now - before) / std::chrono::duration<double>(kTick).count();
  };
  const double seconds = std::chrono::duration<double>(Clock::now() - link_since_).count();
  console_.SetStatus(StatusLines(route_, link_state_ + " " + FormatSeconds(seconds), totals,
                                 rate(totals.sent, last_totals_.sent),
                                 rate(totals.received, last_totals_.received), line_()));
}

void Reporter::Emit(const char* event, const JsonObject& details, OutputQueue::Kind kind) {
  if (options_.json) PrintOut(EventLine(event, details), kind);
}

void Reporter::EmitStatistics(const Traffic::Totals& totals) {
  JsonObject object;
  object.Add("open", totals.open).Add("connections", totals.connections);
  object.Add("sent", totals.sent).Add("received", totals.received);
  Emit("stats", object.Add(LineObject(line_())), OutputQueue::Kind::kStatistics);
}

}  // namespace gxtool
