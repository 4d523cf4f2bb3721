// How much of a scenario to run.
#ifndef GX_TESTS_SUPPORT_SCALE_H
#define GX_TESTS_SUPPORT_SCALE_H

#include <chrono>
#include <cstdlib>

namespace gxtest {

// scripts/long-tests asks for the full figures.
inline bool IsLong() { return std::getenv("GX_LONG") != nullptr; }

template <class Figure>
Figure Scale(Figure brief, Figure full) {
  return IsLong() ? full : brief;
}

// The same for a number of rounds, which the caller of scripts/long-tests may set.
inline int Rounds(int brief, int full) {
  const char* rounds = std::getenv("GX_LONG_ROUNDS");
  return rounds != nullptr ? std::atoi(rounds) : Scale(brief, full);
}

// Milliseconds that `action` takes.
template <class Action>
long Measure(Action action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  return static_cast<long>((std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(1));
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_SCALE_H
