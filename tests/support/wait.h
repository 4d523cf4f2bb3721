// Waiting for what another thread or process does, always with a bound.
#ifndef GX_TESTS_SUPPORT_WAIT_H
#define GX_TESTS_SUPPORT_WAIT_H

#include "support/standard.h"

namespace gxtest {

// Generous: sanitizers and loaded machines are slow. Only a failing test ever waits this long.
inline constexpr std::chrono::seconds kPatience{20};

// True as soon as `condition` holds, false when it does not in time. For conditions that nothing announces.
template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_WAIT_H
