// Is this carrier any good? What --probe measures.
#ifndef GX_SSH_PROBE_H
#define GX_SSH_PROBE_H

#include <optional>
#include <string>
#include <vector>

#include "common/ready_line.h"
#include "gx-ssh/console.h"
#include "gx-ssh/options.h"
#include "gx-ssh/report.h"

namespace gxtool {

// What was found, as far as the probe came.
struct ProbeResult {
  std::string problem;  // empty: usable
  std::optional<double> ready_seconds;
  std::string noise;  // before the ready line, the end of it
  Features features;  // of the far side
  std::vector<double> round_trips_ms;
  bool bytes_survive = false;        // every value, both ways
  std::optional<double> there_rate;  // bytes per second
  std::optional<double> both_rate;   // each way, while both are busy
};

// Starts the carrier and measures, within about ten seconds once the far side is ready. No module is needed.
// Throws Failure when the carrier cannot be run.
ProbeResult Probe(const Options& options, Console& console);

std::vector<std::string> ProbeTable(const ProbeResult& result);
JsonObject ProbeObject(const ProbeResult& result);

}  // namespace gxtool

#endif  // GX_SSH_PROBE_H
