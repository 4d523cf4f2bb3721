#include "base/clock.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>

std::uint64_t gettickcount() {
  // steady_clock is CLOCK_MONOTONIC on Linux and the mach clock on macOS.
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

std::uint32_t GetCurrentThreadNumber() {
#if defined(__APPLE__)
  std::uint64_t id = 0;
  pthread_threadid_np(nullptr, &id);
  return static_cast<std::uint32_t>(id);
#else
  return static_cast<std::uint32_t>(syscall(SYS_gettid));
#endif
}
