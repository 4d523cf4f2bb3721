// The module's way to its host: log lines and configuration.
#ifndef GX_RUNTIME_GXMOD_RUNTIME_H
#define GX_RUNTIME_GXMOD_RUNTIME_H

#include "base/mutex_lock.h"
#include "base/singleton.h"
#include "gxmod/module.h"

// Forwards to the host's runtime while one is set; without one, log lines go to standard output and everything
// else does nothing. One per module, reached through CSingleton_T<CGXModRuntime>. Threads: any. The lock is
// held for the whole call into the host, so calls into the host never overlap, and the host must not log
// through the module from inside one.
class CGXModRuntime final : public IGXModRuntime {
 public:
  // Lines about threads that end by an exception come here from now on.
  CGXModRuntime();
  CGXModRuntime(const CGXModRuntime&) = delete;
  CGXModRuntime& operator=(const CGXModRuntime&) = delete;

  void Log(int level, const char* text) override;
  int GetConfig(bool scope, const char* section, const char* key, IGXModData** out,
                const char* fallback) override;
  int SaveConfig(bool scope, const char* section, const char* key, const char* value) override;
  const char* GetEnv(const char* name) override;

  // Stores the host's runtime, which is not counted and must outlive its registration; null takes it back.
  void SetHost(IGXModRuntime* host);

 private:
  CMutexLock lock_;
  IGXModRuntime* host_ GUARDED_BY(lock_) = nullptr;
};

// Formats as printf does, cuts at 4095 characters and logs. `level` is one of GXModLogLevel. Threads: any.
// Never throws: without memory, or when the host throws, the line is lost.
void GXModLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

#endif  // GX_RUNTIME_GXMOD_RUNTIME_H
