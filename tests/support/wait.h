// Waiting for what another thread or process does, always with a bound; and how much of a scenario to run.
#ifndef GX_TESTS_SUPPORT_WAIT_H
#define GX_TESTS_SUPPORT_WAIT_H

#include "support/standard.h"

namespace gxtest {

// Generous: sanitizers and loaded machines are slow. Only a failing test ever waits this long.
inline constexpr std::chrono::seconds kPatience{20};

// Returns true as soon as `condition` holds, false when time is up. For conditions that nothing announces.
template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds patience = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// scripts/long-tests asks for the full figures.
template <class Figure>
Figure Scale(Figure brief, Figure full) {
  return std::getenv("GX_LONG") != nullptr ? full : brief;
}

// The same for a number of rounds; the caller of scripts/long-tests may set it.
inline int Rounds(int brief, int full) {
  const char* rounds = std::getenv("GX_LONG_ROUNDS");
  return rounds != nullptr ? std::atoi(rounds) : Scale(brief, full);
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_WAIT_H
