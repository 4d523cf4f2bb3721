#include "workloads.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <numeric>
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

  // `name` tells what the seconds are multiplied with and divided by. Without work there is nothing to tell.
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

Receipt Transfer(Socket& connection, Service service, double seconds) {
  const Request request{service, NewKey(), static_cast<std::uint64_t>(seconds * 1e3)};
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
  return OnThreads(connections.size(),
                   [&](std::size_t i) { return Transfer(connections[i], service, plan.seconds); });
}

double MbPerSecond(const std::vector<Receipt>& receipts, double seconds) {
  double bytes = 0;
  for (const Receipt& receipt : receipts) bytes += static_cast<double>(receipt.in_time);
  return bytes / 1e6 / seconds;
}

Figures Bulk(const Plan& plan, Service service) {
  const CpuMeter cpu(plan.tunnel);
  const std::vector<Receipt> receipts = Transfers(plan, service);
  const double all = MbPerSecond(receipts, plan.seconds);
  const Receipt slowest = *std::ranges::min_element(receipts, {}, &Receipt::in_time);
  double bytes = 0;
  for (const Receipt& receipt : receipts) bytes += static_cast<double>(receipt.bytes);
  Figures figures{{"mb_per_s", all}};
  if (all > 0) {
    const double slowest_sum = MbPerSecond({slowest}, plan.seconds) * static_cast<double>(receipts.size());
    figures.emplace_back("slowest_of_mean", slowest_sum / all);
  }
  cpu.Tell(figures, "cpu_s_per_gb", 1e9, bytes);
  return figures;
}

// ---- Round trips

// Asks small questions and waits for each answer.
class Asker {
 public:
  explicit Asker(const Plan& plan) : connection_(Ask(plan, {Service::kEcho})), next_(NewKey()) {}

  void Trip() {
    std::array<std::uint64_t, 8> question, answer;
    std::iota(question.begin(), question.end(), next_);
    next_ += question.size();
    SendObject(connection_, question);
    if (!ReceiveObject(connection_, answer)) throw Failure("the stream ended instead of an answer");
    if (question != answer) throw WrongBytes("wrong bytes in an answer");
  }

 private:
  Socket connection_;
  std::uint64_t next_;
};

// Tells what many trips took.
void MeasureTrips(Asker& asker, const Plan& plan, Figures& figures) {
  const CpuMeter cpu(plan.tunnel);
  std::vector<double> trips_us;
  for (const auto end = After(plan.seconds); Clock::now() < end;) {
    const auto start = Clock::now();
    asker.Trip();
    trips_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  std::ranges::sort(trips_us);
  const auto count = static_cast<double>(trips_us.size());
  for (const auto& [name, part] :
       {std::pair{"p50_us", 0.5}, {"p95_us", 0.95}, {"p99_us", 0.99}, {"p99.9_us", 0.999}}) {
    // Without a trip beyond it, it would be the slowest trip and no percentile.
    if (count * (1 - part) < 1) continue;
    figures.emplace_back(name, trips_us[static_cast<std::size_t>(part * count)]);
  }
  figures.emplace_back("trips", count);
  cpu.Tell(figures, "cpu_us_per_trip", 1e6, count);
}

Figures Trips(const Plan& plan) {
  Figures figures;
  Asker asker(plan);
  MeasureTrips(asker, plan, figures);
  return figures;
}

// The transfer starts sooner and ends later than the trips, so that none is alone.
Figures TripsBesideBulk(const Plan& plan, Service service) {
  constexpr double kMarginSeconds = 0.2;
  Plan bulk = plan;
  bulk.seconds += 2 * kMarginSeconds;
  auto transfers = std::async(std::launch::async, [&] { return Transfers(bulk, service); });
  Figures figures;
  Asker asker(plan);
  transfers.wait_until(After(kMarginSeconds));
  Plan alone = plan;
  alone.tunnel = Processes({});  // the use of both together would be nobody's figure
  MeasureTrips(asker, alone, figures);
  figures.emplace_back("bulk_mb_per_s", MbPerSecond(transfers.get(), bulk.seconds));
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
  for (Asker& each : idle) each.Trip();  // none was lost meanwhile
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
      {"trip", "64 bytes there and back, again and again", Trips},
      {"trip-up", "trip, beside connections that send",
       [](const Plan& plan) { return TripsBesideBulk(plan, Service::kSink); }},
      {"trip-down", "trip, beside connections that receive",
       [](const Plan& plan) { return TripsBesideBulk(plan, Service::kSource); }},
      {"trip-idle", "trip, beside connections on which nothing moves; memory", TripsBesideIdle},
      {"connect", "threads that connect, do one trip, hang up", Connect},
      {"nothing", "no connection at all; CPU time", Nothing},
  };
  return all;
}

}  // namespace gxbench
