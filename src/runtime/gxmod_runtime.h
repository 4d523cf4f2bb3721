// The module's connection to its host: log lines and configuration.
#ifndef GX_RUNTIME_GXMOD_RUNTIME_H
#define GX_RUNTIME_GXMOD_RUNTIME_H

#include "base/mutex_lock.h"
#include "base/singleton.h"
#include "gxmod/module.h"

// Forwards to the host's runtime while one is set; otherwise log lines go to standard output and the other
// operations do nothing. One per module, reached through CSingleton_T<CGXModRuntime>. Threads: any. The lock is
// held during each call into the host, so those calls never overlap, and the host must not log through the
// module from inside one.
class CGXModRuntime final : public IGXModRuntime {
 public:
  // Registers this runtime as the failure log of all threads.
  CGXModRuntime();
  CGXModRuntime(const CGXModRuntime&) = delete;
  CGXModRuntime& operator=(const CGXModRuntime&) = delete;

  void Log(int level, const char* text) override;
  int GetConfig(bool scope, const char* section, const char* key, IGXModData** out,
                const char* fallback) override;
  int SaveConfig(bool scope, const char* section, const char* key, const char* value) override;
  const char* GetEnv(const char* name) override;

  // Stores the host's runtime, which is not reference-counted and must outlive its registration; null removes
  // it.
  void SetHost(IGXModRuntime* host);

 private:
  CMutexLock lock_;
  IGXModRuntime* host_ GUARDED_BY(lock_) = nullptr;
};

// Formats like printf, truncates to 4095 characters and logs. `level` is one of GXModLogLevel. Threads: any.
// Never throws: the line is lost when memory runs out or the host throws.
void GXModLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif  // GX_RUNTIME_GXMOD_RUNTIME_H
