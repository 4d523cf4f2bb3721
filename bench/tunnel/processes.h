// What the processes of the tunnel use, out of /proc.
#ifndef GX_BENCH_TUNNEL_PROCESSES_H
#define GX_BENCH_TUNNEL_PROCESSES_H

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace gxbench {

struct Memory {
  double rss_mb = 0;  // with what processes share counted in each
  double pss_mb = 0;  // with what processes share divided by their number
};

// Some processes and all that descend from them, at the time of the question. MB are millions of bytes.
class Processes {
 public:
  explicit Processes(std::vector<pid_t> roots) : roots_(std::move(roots)) {}

  bool none() const { return roots_.empty(); }
  // In user and system mode, of all threads, and of children that have ended. The kernel counts ticks, 10 ms
  // mostly.
  double CpuSeconds() const;
  Memory UsedMemory() const;

 private:
  std::vector<pid_t> roots_;
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_PROCESSES_H
