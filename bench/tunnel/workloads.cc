#include "workloads.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <future>
#include <initializer_list>
#include <numeric>
#include <span>
#include <thread>

#include "failure.h"
#include "pattern.h"
#include "socket.h"
#include "target.h"

namespace gxbench {
namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point After(double seconds) {
  return Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

std::uint64_t NewKey() {
  static std::atomic<std::uint64_t> made{0};
  return PatternKey(made++);
}

Socket Ask(const Plan& plan, const Request& request) {
  Socket connection = Socket::Connect(plan.to);
  SendObject(connection, request);
  return connection;
}

// Measures what the tunnel's processes use from here on.
class CpuMeter {
 public:
  explicit CpuMeter(const Processes& processes) : processes_(processes), before_(processes.CpuSeconds()) {}

  // Adds the figure seconds * `factor` / `work` under `name`; without work, no figure.
  void Tell(Figures& figures, const char* name, double factor, double work) const {
    if (processes_.none() || work == 0) return;
    figures.emplace_back(name, (processes_.CpuSeconds() - before_) * factor / work);
  }

 private:
  const Processes& processes_;
  const double before_;
};

// Runs `body(i)` on `count` threads and returns what they return. When some fail, one failure is thrown.
template <typename Body>
auto OnThreads(std::size_t count, const Body& body) {
  using Result = std::invoke_result_t<Body, std::size_t>;
  std::vector<std::future<Result>> running;
  for (std::size_t i = 0; i < count; ++i) running.push_back(std::async(std::launch::async, std::cref(body), i));
  std::vector<Result> results;
  results.reserve(count);
  for (auto& each : running) results.push_back(each.get());
  return results;
}

// ---- Bulk transfers

std::vector<double> Edges(const Plan& plan) {
  return plan.edges.empty() ? std::vector<double>{0, plan.seconds} : plan.edges;
}

// The name of a figure of the part that begins with that edge.
std::string NameOfPart(const std::string& name, const std::vector<double>& edges, std::size_t part) {
  if (edges.size() == 2) return name;
  char seconds[40];
  std::snprintf(seconds, sizeof seconds, " (%g to %g s)", edges[part], edges[part + 1]);
  return name + seconds;
}

Receipt Transfer(Socket& connection, Service service, const Plan& plan) {
  Request request{service, NewKey(), static_cast<std::uint64_t>(plan.seconds * 1e3)};
  std::ranges::transform(Edges(plan), request.edges_ms.begin(),
                         [](double edge) { return static_cast<std::uint64_t>(edge * 1e3); });
  SendObject(connection, request);
  if (service == Service::kSource) return ReceivePattern(connection, request);
  SendPattern(connection, request);
  Receipt receipt;
  if (!ReceiveObject(connection, receipt)) throw Failure("the stream ended before the receipt");
  return receipt;
}

std::vector<Receipt> Transfers(const Plan& plan, Service service) {
  if (plan.connections == 0) throw Failure("a transfer needs a connection");
  std::vector<Socket> connections(plan.connections);
  for (Socket& each : connections) each = Socket::Connect(plan.to);
  return OnThreads(connections.size(), [&](std::size_t i) { return Transfer(connections[i], service, plan); });
}

void TellRates(const std::vector<Receipt>& receipts, const Plan& plan, const char* name, Figures& figures) {
  const std::vector<double> edges = Edges(plan);
  for (std::size_t part = 0; part + 1 < edges.size(); ++part) {
    double bytes = 0;
    for (const Receipt& receipt : receipts) bytes += static_cast<double>(receipt.in_part[part]);
    figures.emplace_back(NameOfPart(name, edges, part), bytes / 1e6 / (edges[part + 1] - edges[part]));
  }
}

// The slowest connection, in the last part.
void TellSlowest(const std::vector<Receipt>& receipts, const Plan& plan, Figures& figures) {
  double all = 0, slowest = 1e300;
  for (const Receipt& receipt : receipts) {
    const auto bytes = static_cast<double>(receipt.in_part[Edges(plan).size() - 2]);
    all += bytes;
    slowest = std::min(slowest, bytes);
  }
  if (all > 0) figures.emplace_back("slowest_of_mean", slowest * static_cast<double>(receipts.size()) / all);
}

Figures Bulk(const Plan& plan, Service service) {
  const CpuMeter cpu(plan.tunnel);
  const std::vector<Receipt> receipts = Transfers(plan, service);
  double bytes = 0;
  for (const Receipt& receipt : receipts) bytes += static_cast<double>(receipt.bytes);
  Figures figures;
  TellRates(receipts, plan, "mb_per_s", figures);
  TellSlowest(receipts, plan, figures);
  cpu.Tell(figures, "cpu_s_per_gb", 1e9, bytes);
  return figures;
}

// ---- Round trips

// Sends small requests and waits for each answer.
class Asker {
 public:
  explicit Asker(const Plan& plan) : connection_(Ask(plan, {Service::kEcho})), next_(NewKey()) {}

  // Sends a request of up to 8 words.
  void Trip(std::size_t words = 8) {
    std::array<std::uint64_t, 8> questions, answers;
    const auto question = std::span(questions).first(words), answer = std::span(answers).first(words);
    std::iota(question.begin(), question.end(), next_);
    next_ += words;
    connection_.Send(std::as_bytes(question));
    if (!connection_.ReceiveAll(std::as_writable_bytes(answer))) {
      throw Failure("the stream ended instead of an answer");
    }
    if (!std::ranges::equal(question, answer)) throw WrongBytes("wrong bytes in an answer");
  }

 private:
  Socket connection_;
  std::uint64_t next_;
};

using Percentile = std::pair<const char*, double>;

void TellPercentiles(std::vector<double> times, std::initializer_list<Percentile> wanted,
                     const std::function<std::string(const char*)>& name, Figures& figures) {
  std::ranges::sort(times);
  const auto count = static_cast<double>(times.size());
  for (const auto& [percentile, part] : wanted) {
    // A percentile with no slower trip beyond it would only be the slowest trip.
    if (count * (1 - part) < 1) continue;
    figures.emplace_back(name(percentile), times[static_cast<std::size_t>(part * count)]);
  }
}

// Measures many trips.
void MeasureTrips(Asker& asker, const Plan& plan, Figures& figures) {
  const CpuMeter cpu(plan.tunnel);
  std::vector<double> trips_us;
  for (const auto end = After(plan.seconds); Clock::now() < end;) {
    const auto start = Clock::now();
    asker.Trip();
    trips_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  TellPercentiles(
      trips_us, {{"p50_us", 0.5}, {"p95_us", 0.95}, {"p99_us", 0.99}, {"p99.9_us", 0.999}},
      [](const char* name) { return name; }, figures);
  const auto count = static_cast<double>(trips_us.size());
  figures.emplace_back("trips", count);
  cpu.Tell(figures, "cpu_us_per_trip", 1e6, count);
}

Figures Trips(const Plan& plan) {
  Figures figures;
  Asker asker(plan);
  MeasureTrips(asker, plan, figures);
  return figures;
}

// The transfer starts before and ends after the trips, so that all trips run beside it.
Figures TripsBesideBulk(const Plan& plan, Service service) {
  constexpr double kMarginSeconds = 0.2;
  Plan bulk = plan;
  bulk.seconds += 2 * kMarginSeconds;
  auto transfers = std::async(std::launch::async, [&] { return Transfers(bulk, service); });
  Figures figures;
  Asker asker(plan);
  transfers.wait_until(After(kMarginSeconds));
  Plan alone = plan;
  alone.tunnel = Processes({});  // the CPU time of both together describes neither
  MeasureTrips(asker, alone, figures);
  TellRates(transfers.get(), bulk, "bulk_mb_per_s", figures);
  return figures;
}

// Typing: 40 bytes, and 50 ms after their echo the next ones. A keystroke counts in the part in which it
// begins.
Figures Keystrokes(const Plan& plan) {
  constexpr std::size_t kWords = 5;
  constexpr std::chrono::milliseconds kPause{50};
  const std::vector<double> edges = Edges(plan);
  std::vector<std::vector<double>> times_ms(edges.size() - 1);
  Asker asker(plan);
  const auto begin = Clock::now();
  for (double at = 0; at < plan.seconds; std::this_thread::sleep_for(kPause)) {
    const auto start = Clock::now();
    asker.Trip(kWords);
    at = std::chrono::duration<double>(start - begin).count();
    const auto part = static_cast<std::size_t>(std::ranges::upper_bound(edges, at) - edges.begin());
    if (part == 0 || part == edges.size()) continue;
    times_ms[part - 1].push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  Figures figures;
  for (std::size_t part = 0; part < times_ms.size(); ++part) {
    const auto name = [&](const char* percentile) { return NameOfPart(percentile, edges, part); };
    TellPercentiles(times_ms[part], {{"p50_ms", 0.5}, {"p95_ms", 0.95}}, name, figures);
    figures.emplace_back(name("keystrokes"), static_cast<double>(times_ms[part].size()));
  }
  return figures;
}

Figures KeystrokesBesideBulk(const Plan& plan, Service service) {
  auto transfers = std::async(std::launch::async, [&] { return Transfers(plan, service); });
  Figures figures = Keystrokes(plan);
  TellRates(transfers.get(), plan, "bulk_mb_per_s", figures);
  return figures;
}

Figures TripsBesideIdle(const Plan& plan) {
  std::vector<Asker> idle;
  for (std::size_t i = 0; i < plan.connections; ++i) idle.emplace_back(plan).Trip();
  Figures figures = Trips(plan);
  if (!plan.tunnel.none()) {
    const Memory memory = plan.tunnel.UsedMemory();
    figures.emplace_back("rss_mb", memory.rss_mb);
    figures.emplace_back("pss_mb", memory.pss_mb);
  }
  for (Asker& each : idle) each.Trip();  // checks that all connections still work
  return figures;
}

// ---- Connections

struct Tries {
  std::size_t good = 0;
  std::size_t failed = 0;
};

Tries Try(const Plan& plan) {
  Tries tries;
  for (const auto end = After(plan.seconds); Clock::now() < end;) {
    try {
      Asker(plan).Trip();
      ++tries.good;
    } catch (const WrongBytes&) {
      throw;
    } catch (const Failure&) {
      ++tries.failed;
    }
  }
  return tries;
}

Figures Connect(const Plan& plan) {
  const CpuMeter cpu(plan.tunnel);
  Tries sum;
  for (const Tries& each : OnThreads(plan.connections, [&](std::size_t) { return Try(plan); })) {
    sum.good += each.good;
    sum.failed += each.failed;
  }
  const auto good = static_cast<double>(sum.good);
  Figures figures{{"per_s", good / plan.seconds}, {"failed", static_cast<double>(sum.failed)}};
  cpu.Tell(figures, "cpu_us_per_connection", 1e6, good);
  return figures;
}

// ---- Nothing

Figures Nothing(const Plan& plan) {
  const CpuMeter cpu(plan.tunnel);
  std::this_thread::sleep_for(std::chrono::duration<double>(plan.seconds));
  Figures figures;
  cpu.Tell(figures, "cpu_s", 1, 1);
  return figures;
}

}  // namespace

const std::vector<Workload>& Workloads() {
  static const std::vector<Workload> all{
      {"up", "connections that send", [](const Plan& plan) { return Bulk(plan, Service::kSink); }},
      {"down", "connections that receive", [](const Plan& plan) { return Bulk(plan, Service::kSource); }},
      {"trip", "round trips of 64 bytes, one after the other", Trips},
      {"trip-up", "trip, beside connections that send",
       [](const Plan& plan) { return TripsBesideBulk(plan, Service::kSink); }},
      {"trip-down", "trip, beside connections that receive",
       [](const Plan& plan) { return TripsBesideBulk(plan, Service::kSource); }},
      {"trip-idle", "trip, beside idle connections; memory", TripsBesideIdle},
      {"keystroke", "round trips of 40 bytes, each 50 ms after the previous one", Keystrokes},
      {"keystroke-up", "keystroke, beside connections that send",
       [](const Plan& plan) { return KeystrokesBesideBulk(plan, Service::kSink); }},
      {"keystroke-down", "keystroke, beside connections that receive",
       [](const Plan& plan) { return KeystrokesBesideBulk(plan, Service::kSource); }},
      {"connect", "threads that connect, do one trip and close", Connect},
      {"nothing", "no connection; CPU time", Nothing},
  };
  return all;
}

}  // namespace gxbench
