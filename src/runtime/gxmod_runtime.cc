#include "runtime/gxmod_runtime.h"

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <new>

#include "base/base_thread.h"

namespace {

constexpr std::size_t kLogLineBytes = 4096;  // including the terminator; a longer text is truncated silently

void LogFailureOfThread(const char* thread, const char* what) noexcept {
  GXModLog(kGXModLogError, "[thread] %s ended with an exception: %s", thread, what);
}

}  // namespace

CGXModRuntime::CGXModRuntime() { CBaseThread::SetFailureLog(&LogFailureOfThread); }

void CGXModRuntime::Log(int level, const char* text) {
  CAutoLock lock(lock_);
  if (host_ != nullptr) {
    host_->Log(level, text);
  } else {
    std::printf("%s\n", text);
  }
}

int CGXModRuntime::GetConfig(bool scope, const char* section, const char* key, IGXModData** out,
                             const char* fallback) {
  CAutoLock lock(lock_);
  return host_ != nullptr ? host_->GetConfig(scope, section, key, out, fallback) : 0;
}

int CGXModRuntime::SaveConfig(bool scope, const char* section, const char* key, const char* value) {
  CAutoLock lock(lock_);
  return host_ != nullptr ? host_->SaveConfig(scope, section, key, value) : 0;
}

const char* CGXModRuntime::GetEnv(const char* name) {
  CAutoLock lock(lock_);
  return host_ != nullptr ? host_->GetEnv(name) : nullptr;
}

void CGXModRuntime::SetHost(IGXModRuntime* host) {
  CAutoLock lock(lock_);
  host_ = host;
}

void GXModLog(int level, const char* format, ...) {
  const std::unique_ptr<char[]> text(new (std::nothrow) char[kLogLineBytes]);
  if (text == nullptr) return;
  text[0] = '\0';  // stays when the format cannot be printed
  std::va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.get(), kLogLineBytes, format, arguments);
  va_end(arguments);
  try {
    CSingleton_T<CGXModRuntime>::Instance()->Log(level, text.get());
  } catch (...) {  // from the host; destructors log, too, and must not throw
  }
}
