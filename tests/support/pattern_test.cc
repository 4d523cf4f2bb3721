#include "support/pattern.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using gxtest::Pattern;
using gxtest::PatternFault;
using testing::StartsWith;

TEST(PatternTest, TellsWhatHasGoneWrong) {
  const std::string right = Pattern(1000, 7);
  EXPECT_EQ(PatternFault(right.substr(13), 7, 13), "");
  EXPECT_EQ(Pattern(500, 7, 333), right.substr(333, 500));
  for (const std::size_t at : {0U, 8U, 303U}) {
    std::string bytes = right;
    EXPECT_THAT(PatternFault(bytes.erase(at, 21), 7), StartsWith("21 bytes lost"));
    bytes = right;
    EXPECT_THAT(PatternFault(bytes.insert(at + 21, right.substr(at, 21)), 7), StartsWith("21 bytes twice"));
    bytes = right;
    EXPECT_THAT(PatternFault(bytes.replace(at, 40, Pattern(40, 9, at)), 7), StartsWith("bytes of 9"));
    bytes = right;
    EXPECT_THAT(PatternFault(bytes.replace(at, 40, 40, 'x'), 7), StartsWith("garbage"));
  }
}

}  // namespace
