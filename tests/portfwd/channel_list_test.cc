#include "portfwd/channel_list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "portfwd/url_code.h"
#include "portfwd/value_separater.h"

namespace {

using testing::ElementsAre;

std::string Describe(const std::string& text) {
  std::string description;
  for (const ChannelRecord& record : ParseChannelList(text)) {
    description += "[" + record.name + "|" + record.protocol + "|" + record.remote_address + "]";
  }
  return description;
}

TEST(ChannelListTest, Writes) {
  EXPECT_EQ(FormatChannelList({}), "");
  EXPECT_EQ(FormatChannelList({{"ssh", "tcp", "127.0.0.1:22"}, {"a;b", "", "&="}}),
            "name=ssh&pro=tcp&addr=127%2E0%2E0%2E1%3A22;name=a%3Bb&pro=&addr=%26%3D;");
}

TEST(ChannelListTest, Reads) {
  const struct {
    const char* text;
    const char* records;
  } cases[] = {
      {"", ""},
      {"name=b&pro=tcp&addr=x;name=a&pro=tcp&addr=y;", "[a|tcp|y][b|tcp|x]"},
      {" name=a&pro=tcp&addr=y", "[a|tcp|y]"},
      {"addr=y&name=a", "[a||y]"},
      {"name=%4&addr=y", "[||y]"},
      {"name=first&name=second", "[first||]"},
      {"colour=red;;", "[||][||]"},
  };
  for (const auto& c : cases) EXPECT_EQ(Describe(c.text), c.records) << c.text;
}

TEST(ChannelListTest, DecodesAsStreamsReadNumbers) {
  const struct {
    const char* text;
    const char* decoded;
  } cases[] = {
      {"a+b", "a b"}, {"a%20b", "a b"}, {"%4G", "\x04"}, {"%4", ""},
      {"ab%", ""},    {"%GG", ""},      {"%e4", "\xE4"}, {"", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(url_decode(c.text), c.decoded) << c.text;
  EXPECT_EQ(url_encode("a b-_.~"), "a%20b%2D%5F%2E%7E");
}

TEST(ChannelListTest, SeparaterTrimsKeysOnly) {
  const CValueSeparater_T<char> values(" k = v ;;bare ; k=w;", ';', '=');
  EXPECT_THAT(values.Items(), ElementsAre("", "bare ", "k", "k"));
  EXPECT_EQ(values.Value("k"), " v ");
  EXPECT_EQ(values.Value("none"), "");
  EXPECT_EQ(trim_string_t<char>("xxaxx", "x", true, false), "axx");
  EXPECT_EQ(trim_string_t<char>(" \t\r\n", nullptr, false, true), "");
}

}  // namespace
