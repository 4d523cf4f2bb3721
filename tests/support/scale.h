// How much of a scenario to run.
#ifndef GX_TESTS_SUPPORT_SCALE_H
#define GX_TESTS_SUPPORT_SCALE_H

#include "support/standard.h"

namespace gxtest {

// scripts/long-tests asks for the full figures.
template <class Figure>
Figure Scale(Figure brief, Figure full) {
  return std::getenv("GX_LONG") != nullptr ? full : brief;
}

// The same for a number of rounds, which the caller of scripts/long-tests may set.
inline int Rounds(int brief, int full) {
  const char* rounds = std::getenv("GX_LONG_ROUNDS");
  return rounds != nullptr ? std::atoi(rounds) : Scale(brief, full);
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_SCALE_H
