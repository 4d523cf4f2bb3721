// The resources that the processes of the tunnel use, from /proc.
#ifndef GX_BENCH_TUNNEL_PROCESSES_H
#define GX_BENCH_TUNNEL_PROCESSES_H

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace gxbench {

struct Memory {
  double rss_mb = 0;  // shared memory is counted in each process
  double pss_mb = 0;  // shared memory is divided by the number of processes
};

// Some processes and their current descendants. MB are millions of bytes.
class Processes {
 public:
  explicit Processes(std::vector<pid_t> roots) : roots_(std::move(roots)) {}

  bool none() const { return roots_.empty(); }
  // In user and system mode, of all threads, and of children that have ended. The kernel counts in ticks,
  // usually of 10 ms.
  double CpuSeconds() const;
  Memory UsedMemory() const;

 private:
  std::vector<pid_t> roots_;
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_PROCESSES_H
