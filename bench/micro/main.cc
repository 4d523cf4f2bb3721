// micro: measures single operations of the module. It has the options of Google Benchmark; bench/instructions
// runs it, too.
#include <benchmark/benchmark.h>

#include "runtime/gxmod_runtime.h"

namespace {

// Drops log lines, which would otherwise go to standard output.
class DeafHost final : public IGXModRuntime {
 public:
  DeafHost() { CSingleton_T<CGXModRuntime>::Instance()->SetHost(this); }
  DeafHost(const DeafHost&) = delete;
  DeafHost& operator=(const DeafHost&) = delete;
  ~DeafHost() { CSingleton_T<CGXModRuntime>::Instance()->SetHost(nullptr); }

  void Log(int, const char* text) override { benchmark::DoNotOptimize(text); }
  int GetConfig(bool, const char*, const char*, IGXModData**, const char*) override { return 0; }
  int SaveConfig(bool, const char*, const char*, const char*) override { return 0; }
  const char* GetEnv(const char*) override { return nullptr; }
};

}  // namespace

int main(int argc, char** argv) {
  const DeafHost host;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
}
