// Tests a carrier, for --probe.
#ifndef GX_SSH_PROBE_H
#define GX_SSH_PROBE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/ready_line.h"
#include "gx-ssh/console.h"
#include "gx-ssh/options.h"
#include "gx-ssh/report.h"

namespace gxtool {

// The measurements, as far as the probe got.
struct ProbeResult {
  std::string problem;  // empty: the carrier is usable
  // With --bring: how much of gx-ssh-peer was sent, and when it ran.
  struct Brought {
    std::uint64_t bytes;  // 0: the far side had it already
    double seconds;
  };
  std::optional<Brought> brought;
  std::optional<double> ready_seconds;
  std::string noise;  // the last bytes before the ready line, or with --bring before the shell
  Features features;  // of the far side
  std::vector<double> round_trips_ms;
  bool bytes_survive = false;        // all byte values, in both directions
  std::optional<double> there_rate;  // bytes per second
  std::optional<double> back_rate;   // known only for a far side with Features::fill
  std::optional<double> both_rate;   // in each direction, while both are busy
  std::string cut_short;             // if not empty: why rates are unknown or too low
  // The queue on the way there when more is sent than the line carries: its bytes and its delay. The probe
  // sends about half a second of the line too much, and at least 1 KiB.
  double queued_bytes = 0;
  std::optional<double> queued_ms;
};

// Starts the carrier and measures. Once the far side is ready, this takes ten to fifteen seconds on most lines;
// the limit is five seconds, plus ten seconds and twenty round trips for each of the three rates. Needs no
// module. Throws Failure when the carrier cannot be run.
ProbeResult Probe(const Options& options, Console& console);

std::vector<std::string> ProbeTable(const ProbeResult& result);
JsonObject ProbeObject(const ProbeResult& result);

}  // namespace gxtool

#endif  // GX_SSH_PROBE_H
