// What is done through the tunnel, and the figures that come of it.
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
  sockaddr_in to{};             // where the tunnel begins
  double seconds = 3;           // that a measurement lasts
  std::size_t connections = 1;  // in the workload's own sense
  // Transfers and keystrokes are told for each time between two of these, in seconds from the begin; empty: as
  // a whole. At most kMostParts + 1.
  std::vector<double> edges;
  Processes tunnel{{}};  // no processes: nothing is told about them
};

struct Workload {
  const char* name;
  const char* summary;
  Figures (*run)(const Plan&);
};

// All there are. Each throws a Failure when a byte does not come as it should.
const std::vector<Workload>& Workloads();

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_WORKLOADS_H
