#include "link/host_port.h"

#include <gtest/gtest.h>

namespace gxtool {
namespace {

TEST(HostPortTest, DifferentSpellingsOfOneTargetAreOneValue) {
  const std::pair<const char*, const char*> cases[] = {
      {"127.0.0.1:22", "127.0.0.1:22"},
      {"LocalHost:65535", "localhost:65535"},
      {"a-b_c.Example.com:1", "a-b_c.example.com:1"},
      {"1.2.3.4.example:80", "1.2.3.4.example:80"},
      {"[::1]:22", "[::1]:22"},
      {"[0:0:0:0:0:0:0:1]:22", "[::1]:22"},
      {"[FE80::00ab]:22", "[fe80::ab]:22"},
      {"[::127.0.0.1]:22", "[::127.0.0.1]:22"},
  };
  for (const auto& [text, canonical] : cases) {
    const auto parsed = ParseHostPort(text);
    ASSERT_TRUE(parsed) << text;
    EXPECT_EQ(parsed->ToString(), canonical);
    EXPECT_EQ(ParseHostPort(canonical), parsed);
  }
  EXPECT_TRUE(ParseHostPort("127.0.0.1:22")->IsNumeric());
  EXPECT_TRUE(ParseHostPort("[::1]:22")->IsNumeric());
  EXPECT_FALSE(ParseHostPort("1.2.3.4.example:22")->IsNumeric());
}

// What is no target is refused by tests/tools/peer/peer_test.cc, through a whole far side.
TEST(HostPortTest, SaysWhatIsWrong) {
  for (const char* text : {"", "host", "a b:22", "127.1:22", "host:022", "[::1]22", "[::1%lo]:22",
                           "[::ffff:127.0.0.1]:22", "::1:22"}) {
    std::string why;
    EXPECT_EQ(ParseHostPort(text, &why), std::nullopt) << text;
    EXPECT_FALSE(why.empty()) << text;
  }
}

}  // namespace
}  // namespace gxtool
