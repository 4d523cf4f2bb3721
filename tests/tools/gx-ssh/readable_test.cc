#include "gx-ssh/readable.h"

#include "support/test.h"

namespace gxtool {
namespace {

TEST(ReadableTest, CharactersStayAndNothingSpeaksToTheTerminal) {
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"Zugriff für \\x: ✓ 漢字 😀", "Zugriff für \\x: ✓ 漢字 😀"},
      {"\x1b[31m\x07\x7f", R"(\x1b[31m\x07\x7f)"},
      {"\xc2\x9b"
       "31m",
       R"(\xc2\x9b31m)"},  // a control sequence begins with that, too
      {"\xe2\x80\xae"
       "gpj",
       R"(\xe2\x80\xaegpj)"},                                 // from right to left
      {"\xc1\x9b \xe0\x82\x9b", R"(\xc1\x9b \xe0\x82\x9b)"},  // the same by longer ways
      {"\xed\xa0\x80 \xf4\x90\x80\x80", R"(\xed\xa0\x80 \xf4\x90\x80\x80)"},
      {"\xe2\x82", R"(\xe2\x82)"},
  };
  for (const auto& [text, shown] : texts) EXPECT_EQ(Readable(text), shown);
}

TEST(ReadableTest, WaitsForTheRestOfACharacter) {
  const std::string text = "a😀";
  for (std::size_t length = 1; length < text.size(); ++length) {
    EXPECT_EQ(WholeCharacters(text.substr(0, length)), "a") << length;
  }
  for (const char* whole : {"", "a😀", "a\xff", "a\x80\x80\x80\x80"}) EXPECT_EQ(WholeCharacters(whole), whole);
}

}  // namespace
}  // namespace gxtool
