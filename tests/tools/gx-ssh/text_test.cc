// What people and programs read of gx-ssh.
#include "gx-ssh/output_queue.h"
#include "gx-ssh/readable.h"
#include "gx-ssh/report.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

TEST(ReadableTest, CharactersStayAndNothingSpeaksToTheTerminal) {
  const std::vector<std::pair<std::string, std::string>> texts = {
      {"Zugriff für \\x: ✓ 漢字 😀 \xee\x80\x80", "Zugriff für \\x: ✓ 漢字 😀 \xee\x80\x80"},
      {"\x1b[31m\x07\x7f", R"(\x1b[31m\x07\x7f)"},
      {"\xc2\x9b 31m", R"(\xc2\x9b 31m)"},                    // another begin of a control sequence
      {"\xe2\x80\xae gpj", R"(\xe2\x80\xae gpj)"},            // from right to left
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

TEST(ReportTest, AnnouncesEveryAddressInItsOrderAndInEveryForm) {
  const Forward tcp{{"", "127.0.0.1", 40001}, "web:80"};
  const Forward unix_path{{"/run/b'ä", "", 0}, "db:5432"};
  const std::tuple<PrintFormat, std::vector<Forward>, std::string> cases[] = {
      {PrintFormat::kAddress, {unix_path, tcp}, "unix:/run/b'ä\n127.0.0.1:40001\n"},
      {PrintFormat::kPort, {tcp, tcp}, "40001\n40001\n"},
      {PrintFormat::kSshConfig,
       {tcp, unix_path},
       "Host box\n  HostName 127.0.0.1\n  Port 40001\n  HostKeyAlias box\n"},
      {PrintFormat::kJson,
       {tcp, unix_path},
       "{\"address\":\"127.0.0.1:40001\",\"host\":\"127.0.0.1\",\"port\":40001,\"target\":\"web:80\"}\n"
       "{\"address\":\"unix:/run/b'ä\",\"target\":\"db:5432\"}\n"},
      {PrintFormat::kEnvironment,
       {tcp},
       "GX_SSH_HOST='127.0.0.1' GX_SSH_PORT='40001' GX_SSH_ADDR='127.0.0.1:40001'\n"},
      {PrintFormat::kEnvironment,
       {unix_path, tcp},
       "GX_SSH_ADDR='unix:/run/b'\\''ä' GX_SSH_ADDR_1='unix:/run/b'\\''ä' "
       "GX_SSH_HOST_2='127.0.0.1' GX_SSH_PORT_2='40001' GX_SSH_ADDR_2='127.0.0.1:40001'\n"},
  };
  for (const auto& [format, forwards, text] : cases) EXPECT_EQ(Announcement(format, forwards, "box"), text);
}

TEST(ReportTest, FormatsNumbersForPeople) {
  EXPECT_EQ(FormatBytes(1023), "1023 B");
  EXPECT_EQ(FormatBytes(1024), "1.0 KiB");
  EXPECT_EQ(FormatBytes(1024 * 1023.96), "1.0 MiB");
  EXPECT_EQ(FormatSeconds(9.9), "9.9s");
  EXPECT_EQ(FormatSeconds(59.9), "59s");
  EXPECT_EQ(FormatSeconds(60), "1m 0s");
  EXPECT_EQ(FormatSeconds(3600), "1h 0m");
  EXPECT_EQ(FormatSeconds(7500), "2h 5m");
}

TEST(ReportTest, TellsOfTheLineWhatIsKnown) {
  EXPECT_EQ(StatusLines("here -> there", "up 2s", {}, 0, 0, {}),
            "here -> there   up 2s\n0 open, 0 in all   sent 0 B (0 B/s)   received 0 B (0 B/s)");
  const LinePace::View idle{false, 0, 0.0005, 0};
  const LinePace::View busy{true, 100'000, 0.042, 4000};
  EXPECT_EQ(LineText(idle), "line round trip 0.50 ms, 0 B under way");
  EXPECT_TRUE(
      StatusLines("", "", {}, 0, 0, busy).ends_with("\nline 97.7 KiB/s, round trip 42 ms, 3.9 KiB under way"));
  EXPECT_EQ(LineObject(busy).Text(),
            R"({"line_bytes_per_second":100000.0,"line_round_trip_ms":42.0,"line_under_way":4000})");
}

// Reading begins after more was added than the queue keeps.
TEST(OutputQueueTest, StalledReaderCostsStatisticsFirst) {
  Pipe pipe = MakePipe();
  const std::string news(1023, 'N');
  const std::string statistics(1023, 'S');
  const std::size_t half = OutputQueue::kBytes / 2048;
  std::string got;
  {
    OutputQueue queue(pipe.write.get(), [](std::uint64_t) { return "lost\n"; });
    for (std::size_t i = 0; i < half; ++i) {
      queue.Add(news + "\n");
      for (int more = 0; more < 10; ++more) queue.Add(statistics + "\n", OutputQueue::Kind::kStatistics);
    }
    queue.Add("end\n");
    std::string piece;
    while (!got.ends_with("end\n") && !(piece = ReadSome(pipe.read.get())).empty()) got += piece;
  }
  EXPECT_EQ(std::count(got.begin(), got.end(), 'N'), static_cast<std::ptrdiff_t>(half * news.size()));
  EXPECT_LT(got.size(), OutputQueue::kBytes * 3 / 2);
  EXPECT_NE(got.find("lost\n"), std::string::npos);
}

}  // namespace
}  // namespace gxtool
