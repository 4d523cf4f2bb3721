#include "portfwd/channel_list.h"

#include <gtest/gtest.h>

namespace {

TEST(ChannelListTest, ReadsAndWrites) {
  const std::pair<const char*, const char*> cases[] = {
      {"name=b&pro=tcp&addr=x;name=a&pro=tcp&addr=y;", "name=a&pro=tcp&addr=y;name=b&pro=tcp&addr=x;"},
      {"name=%4&addr=a+b%20c", "name=&pro=&addr=a%20b%20c;"},
      {"name=%4G&pro=%GG&addr=%e4", "name=%04&pro=&addr=%E4;"},  // numbers as std::istream reads them
      {" name = a ;; bare", "name=&pro=&addr=;name=&pro=&addr=;name=%20a%20&pro=&addr=;"},
      {"name=first&name=second", "name=first&pro=&addr=;"},
  };
  for (const auto& [text, list] : cases) EXPECT_EQ(FormatChannelList(ParseChannelList(text)), list) << text;
  EXPECT_EQ(ParseChannelList("name=a")[0].name, "a") << "no NUL follows";
  EXPECT_EQ(FormatChannelList({{"ssh", "tcp", "127.0.0.1:22"}, {"a;b", "", "&="}}),
            "name=ssh&pro=tcp&addr=127%2E0%2E0%2E1%3A22;name=a%3Bb&pro=&addr=%26%3D;");
}

}  // namespace
