// Text that people write and read.
#include <gtest/gtest.h>

#include "common/duration.h"
#include "common/escape.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

TEST(DurationTest, ReadsWhatItWritesAndLittleElse) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"500ms", 500}, {"15s", 15'000}, {"90s", 90'000}, {"2m", 120'000}, {"10000h", 36'000'000'000}, {"0s", 0}};
  for (const auto& [text, count] : cases) {
    EXPECT_EQ(ParseDuration(text), milliseconds(count)) << text;
    EXPECT_EQ(FormatDuration(milliseconds(count)), text);
  }
  EXPECT_EQ(ParseDuration("15"), milliseconds(15'000));
  for (const char* text :
       {"", "s", "-1s", "+1s", " 1s", "1 s", "1s ", "1.5s", "1d", "1MS", "10001h", "4294967295h", "1s2m"}) {
    EXPECT_EQ(ParseDuration(text), std::nullopt) << text;
  }
}

TEST(EscapeTest, CutsLongTextAndLeavesNothingThatATerminalObeys) {
  EXPECT_EQ(Escape(" ~\\b\n\r\t\x1b[31m\x7f\x80\xff"), " ~\\\\b\\n\\r\\t\\x1b[31m\\x7f\\x80\\xff");
  EXPECT_EQ(Escape("abcdef", 6), "abcdef");
  EXPECT_EQ(Escape("abcdefg", 6), "abcdef...");
}

}  // namespace
}  // namespace gxtool
