// A log line, without the host's part.
#include "runtime/gxmod_runtime.h"

#include "measure.h"

namespace {

void Log(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  gxbench::MeasureAt(state, "log", [&] { GXModLog(level, "[stream] %s of %d bytes", "a read", 4096); });
}
BENCHMARK(Log)->Arg(kGXModLogInfo)->Arg(kGXModLogWarning)->Arg(kGXModLogError)->Arg(kGXModLogTrace);

}  // namespace
