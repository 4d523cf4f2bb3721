// The failure of a run, as a message. A failed run has no figures.
#ifndef GX_BENCH_TUNNEL_FAILURE_H
#define GX_BENCH_TUNNEL_FAILURE_H

#include <stdexcept>

namespace gxbench {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Received bytes differ from those that were sent.
struct WrongBytes : Failure {
  using Failure::Failure;
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_FAILURE_H
