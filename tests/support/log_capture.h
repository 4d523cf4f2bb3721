// A host that keeps the module's log lines.
#ifndef GX_TESTS_SUPPORT_LOG_CAPTURE_H
#define GX_TESTS_SUPPORT_LOG_CAPTURE_H

#include "base/singleton.h"
#include "runtime/gxmod_runtime.h"
#include "support/standard.h"

// Threads: any.
class LogKeeper : public IGXModRuntime {
 public:
  using Line = std::pair<int, std::string>;  // level and text

  // The lines since the last call, oldest first.
  std::vector<Line> Lines() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }

  void Log(int level, const char* text) override {
    const std::lock_guard lock(mutex_);
    lines_.emplace_back(level, text);
  }
  int GetConfig(bool, const char*, const char*, IGXModData**, const char*) override { return 0; }
  int SaveConfig(bool, const char*, const char*, const char*) override { return 0; }
  const char* GetEnv(const char*) override { return nullptr; }

 private:
  std::mutex mutex_;
  std::vector<Line> lines_;
};

// Takes every log line during its life. Only one may exist at a time.
//
//     LogCapture log;
//     ...
//     EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogError, HasSubstr("timeout"))));
class LogCapture : public LogKeeper {
 public:
  LogCapture() { CSingleton_T<CGXModRuntime>::Instance()->SetHost(this); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() { CSingleton_T<CGXModRuntime>::Instance()->SetHost(nullptr); }
};

#endif  // GX_TESTS_SUPPORT_LOG_CAPTURE_H
