#include "common/escape.h"

#include <gtest/gtest.h>

namespace gxtool {
namespace {

TEST(EscapeTest, LeavesNothingThatATerminalObeys) {
  std::string every_byte;
  for (int byte = 0; byte < 256; ++byte) every_byte += static_cast<char>(byte);
  const std::string escaped = Escape(every_byte, every_byte.size());
  for (const char c : escaped) EXPECT_TRUE(c >= ' ' && c <= '~');
  EXPECT_EQ(Escape("a\\b\n\r\t\x1b[31m\xc3\x7f"), "a\\\\b\\n\\r\\t\\x1b[31m\\xc3\\x7f");
}

TEST(EscapeTest, CutsLongText) {
  EXPECT_EQ(Escape("abcdef", 6), "abcdef");
  EXPECT_EQ(Escape("abcdefg", 6), "abcdef...");
}

}  // namespace
}  // namespace gxtool
