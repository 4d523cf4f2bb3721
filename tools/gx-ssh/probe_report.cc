#include <spdlog/fmt/fmt.h>

#include <algorithm>

#include "common/escape.h"
#include "gx-ssh/probe.h"

namespace gxtool {
namespace {

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
  if (result.there_rate) row("rate there", FormatBytes(*result.there_rate) + "/s");
  if (result.queued_ms) {
    row("queue there", fmt::format("up to {}, {:.0f} ms", FormatBytes(result.queued_bytes), *result.queued_ms));
  }
  if (result.back_rate) row("rate back", FormatBytes(*result.back_rate) + "/s");
  if (result.there_rate && !result.features.fill) {
    row("rate back", "unknown: the gx-ssh-peer there is of an older release, which cannot fill the line");
  }
  if (result.both_rate) row("both ways", FormatBytes(*result.both_rate) + "/s each");
  if (!result.cut_short.empty()) row("cut short", result.cut_short);
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
  if (result.there_rate) object.Add("there_bytes_per_second", *result.there_rate);
  if (result.queued_ms) {
    object.Add("queued_bytes", static_cast<std::uint64_t>(result.queued_bytes));
    object.Add("queued_ms", *result.queued_ms);
  }
  if (result.back_rate) object.Add("back_bytes_per_second", *result.back_rate);
  if (result.both_rate) object.Add("both_bytes_per_second", *result.both_rate);
  if (!result.cut_short.empty()) object.Add("cut_short", result.cut_short);
  if (!result.problem.empty()) object.Add("problem", result.problem);
  return object;
}

}  // namespace gxtool
