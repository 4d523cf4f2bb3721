#include "common/duration.h"

#include <gtest/gtest.h>

namespace gxtool {
namespace {

using std::chrono::milliseconds;

TEST(DurationTest, ReadsWhatItWrites) {
  const std::pair<const char*, int> cases[] = {{"500ms", 500},  {"15s", 15'000},   {"90s", 90'000},
                                               {"2m", 120'000}, {"1h", 3'600'000}, {"0s", 0}};
  for (const auto& [text, count] : cases) {
    EXPECT_EQ(ParseDuration(text), milliseconds(count)) << text;
    EXPECT_EQ(FormatDuration(milliseconds(count)), text);
  }
  EXPECT_EQ(ParseDuration("15"), milliseconds(15'000));
}

TEST(DurationTest, RefusesEverythingElse) {
  for (const char* text : {"", "s", "-1s", "+1s", " 1s", "1 s", "1s ", "1.5s", "1d", "1MS", "4294967296ms",
                           "4294967295h", "1s2m"}) {
    EXPECT_EQ(ParseDuration(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace gxtool
