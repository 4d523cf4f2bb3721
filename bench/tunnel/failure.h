// What went wrong, for people. A run that fails has no figures.
#ifndef GX_BENCH_TUNNEL_FAILURE_H
#define GX_BENCH_TUNNEL_FAILURE_H

#include <stdexcept>

namespace gxbench {

struct Failure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Bytes have come that nobody sent.
struct WrongBytes : Failure {
  using Failure::Failure;
};

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_FAILURE_H
