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

// Each of these some resolver or C library would have taken for a target.
TEST(HostPortTest, RefusesWhatTwoProgramsMayReadDifferently) {
  using namespace std::string_literals;
  const std::string long_label(64, 'a');
  const std::string cases[] = {"",
                               ":",
                               ":22",
                               "127.0.0.1",
                               "127.0.0.1:",
                               "127.0.0.1:0",
                               "127.0.0.1:022",
                               "127.0.0.1:+22",
                               "127.0.0.1:-1",
                               "127.0.0.1: 22",
                               "127.0.0.1:22 ",
                               "127.0.0.1:22\n",
                               "127.0.0.1:65536",
                               "127.0.0.1:4294967318",
                               "127.0.0.1:0x16",
                               "127.0.0.1:ssh",
                               "127.0.0.1:22:22",
                               " 127.0.0.1:22",
                               "127.0.0.1 :22",
                               "127.0.0.1.:22",
                               "127.0.0.1..:22",
                               "127.1:22",
                               "127.0.1:22",
                               "2130706433:22",
                               "0x7f000001:22",
                               "0X7F.0.0.1:22",
                               "0x7f.1:22",
                               "0177.0.0.1:22",
                               "127.0.0.01:22",
                               "127.0.0.256:22",
                               "127.0.0.1.1:22",
                               "0x:22",
                               "localhost.:22",
                               ".localhost:22",
                               "a..b:22",
                               "-a:22",
                               "a-:22",
                               "a b:22",
                               "a/b:22",
                               "user@host:22",
                               "*:22",
                               "::1:22",
                               "[::1]",
                               "[::1]22",
                               "[::1:22",
                               "::1]:22",
                               "[[::1]]:22",
                               "[]:22",
                               "[::1]:",
                               "[::1%lo]:22",
                               "[::1%1]:22",
                               "[127.0.0.1]:22",
                               "[localhost]:22",
                               "[::ffff:127.0.0.1]:22",
                               "[::FFFF:7f00:1]:22",
                               "[0:0:0:0:0:ffff:7f00:0001]:22",
                               "[:::1]:22",
                               "[00000::1]:22",
                               "127.0.0.1\0:22"s,
                               "127.0.0.1:22\0"s,
                               "\0"s + "127.0.0.1:22",
                               "[::1\0]:22"s,
                               "b\xc3\xbc.example:22",
                               "\xef\xbc\x91.0.0.1:22",
                               long_label + ":22",
                               std::string(65536, 'a') + ":22",
                               std::string(65536, '[') + ":22",
                               std::string(65536, '\0'),
                               "127.0.0.1:" + std::string(65536, '2')};
  for (const std::string& text : cases) {
    std::string why;
    EXPECT_EQ(ParseHostPort(text, &why), std::nullopt) << text.substr(0, 80);
    EXPECT_FALSE(why.empty()) << text.substr(0, 80);
  }
}

}  // namespace
}  // namespace gxtool
