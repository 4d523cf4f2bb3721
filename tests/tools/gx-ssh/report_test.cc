#include "gx-ssh/report.h"

#include <gtest/gtest.h>

namespace gxtool {
namespace {

const ListenAddress kTcp{"", "127.0.0.1", 40001};
const ListenAddress kUnix{"/run/b'x", "", 0};

TEST(ReportTest, AnnouncesTheAddressInEveryForm) {
  EXPECT_EQ(Announcement(PrintFormat::kAddress, kTcp, "box"), "127.0.0.1:40001\n");
  EXPECT_EQ(Announcement(PrintFormat::kAddress, {"", "::1", 22}, "box"), "[::1]:22\n");
  EXPECT_EQ(Announcement(PrintFormat::kAddress, kUnix, "box"), "unix:/run/b'x\n");
  EXPECT_EQ(Announcement(PrintFormat::kPort, kTcp, "box"), "40001\n");
  EXPECT_EQ(Announcement(PrintFormat::kJson, kTcp, "box"),
            "{\"host\":\"127.0.0.1\",\"port\":40001,\"address\":\"127.0.0.1:40001\"}\n");
  EXPECT_EQ(Announcement(PrintFormat::kEnvironment, kTcp, "box"),
            "GX_SSH_HOST='127.0.0.1' GX_SSH_PORT='40001' GX_SSH_ADDR='127.0.0.1:40001'\n");
  EXPECT_EQ(Announcement(PrintFormat::kEnvironment, kUnix, "box"), "GX_SSH_ADDR='unix:/run/b'\\''x'\n");
  EXPECT_EQ(Announcement(PrintFormat::kSshConfig, kTcp, "box"),
            "Host box\n  HostName 127.0.0.1\n  Port 40001\n  HostKeyAlias box\n");
  EXPECT_EQ(Announcement(PrintFormat::kNothing, kTcp, "box"), "");
}

TEST(ReportTest, FormatsNumbersForPeople) {
  const std::vector<std::pair<double, std::string>> bytes = {
      {0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KiB"}, {1024 * 1023.96, "1.0 MiB"}, {1.5e9, "1.4 GiB"}};
  for (const auto& [number, text] : bytes) EXPECT_EQ(FormatBytes(number), text);
  const std::vector<std::pair<double, std::string>> seconds = {
      {9.9, "9.9s"}, {59.9, "59s"}, {60, "1m 0s"}, {7500, "2h 5m"}};
  for (const auto& [number, text] : seconds) EXPECT_EQ(FormatSeconds(number), text);
}

TEST(ReportTest, JsonStaysOnOneLineWhateverIsInIt) {
  JsonObject object;
  object.Add("text", "a\"b\\c\n\x01").Add("number", std::uint64_t{1} << 63).Add("seconds", 1.5);
  EXPECT_EQ(object.Text(), R"({"text":"a\"b\\c\u000a\u0001","number":9223372036854775808,"seconds":1.500})");
}

}  // namespace
}  // namespace gxtool
