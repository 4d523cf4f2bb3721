// The loads on the tunnel, and their figures.
#ifndef GX_BENCH_TUNNEL_WORKLOADS_H
#define GX_BENCH_TUNNEL_WORKLOADS_H

#include <netinet/in.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

#include "processes.h"

namespace gxbench {

// Names and values, in the order in which they are shown. The name ends with the unit.
using Figures = std::vector<std::pair<std::string, double>>;

struct Plan {
  sockaddr_in to{};             // the tunnel's local port
  double seconds = 3;           // duration of a measurement
  std::size_t connections = 1;  // their use depends on the workload
  // Transfers and keystrokes get a figure for each time between two of these, in seconds from the begin; empty:
  // one figure. At most kMostParts + 1.
  std::vector<double> edges;
  Processes tunnel{{}};  // without processes, their figures are left out
};

struct Workload {
  const char* name;
  const char* summary;
  Figures (*run)(const Plan&);
};

// All workloads. Each throws a Failure when a byte is wrong or missing.
const std::vector<Workload>& Workloads();

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_WORKLOADS_H
