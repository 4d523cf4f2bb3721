#include "portfwd/channel_list.h"

#include <gtest/gtest.h>

namespace {

std::string Describe(const std::string& text) {
  std::string description;
  for (const ChannelRecord& record : ParseChannelList(text)) {
    description += "[" + record.name + "|" + record.protocol + "|" + record.remote_address + "]";
  }
  return description;
}

TEST(ChannelListTest, ReadsAndWrites) {
  const struct {
    const char* text;
    const char* records;
  } cases[] = {
      {"name=b&pro=tcp&addr=x;name=a&pro=tcp&addr=y;", "[a|tcp|y][b|tcp|x]"},
      {"name=%4&addr=a+b%20c", "[||a b c]"},
      {"name=%4G&pro=%GG&addr=%e4", "[\x04||\xE4]"},  // as streams read numbers
      {" name = a ;; bare", "[||][||][ a ||]"},
      {"name=first&name=second", "[first||]"},
  };
  for (const auto& c : cases) EXPECT_EQ(Describe(c.text), c.records) << c.text;
  EXPECT_EQ(FormatChannelList({{"ssh", "tcp", "127.0.0.1:22"}, {"a;b", "", "&="}}),
            "name=ssh&pro=tcp&addr=127%2E0%2E0%2E1%3A22;name=a%3Bb&pro=&addr=%26%3D;");
}

}  // namespace
