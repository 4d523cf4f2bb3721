#include "gx-ssh/bring_talk.h"

#include <spdlog/fmt/fmt.h>

#include "support/test.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

// The test plays the shell. Each piece takes about a second on any line, and a 0 follows the last one.
TEST(BringTalkTest, PiecesFitTheLine) {
  const std::string token = std::string(12, 'a') + std::string(12, 'b') + std::string(24, '7');
  const std::string content(192'100, 'c');
  const BringOrders orders{{{"x86_64", {"Linux x86_64"}, "x", 300'000, std::string(64, '0')}}, "", false, {}};
  BringTalk talk(BringCommands(orders, token), [&](const StoredPeer&, bool) { return content; });
  milliseconds pause(1);
  BringTalk::Clock::time_point now{};
  const auto say = [&](const std::string& text) {
    return talk.Take(token.substr(0, 24) + text + ' ' + token.substr(12, 12) + token.substr(0, 12) + "\r\n",
                     now += pause);
  };
  std::string every_byte;
  for (int value = 0; value < 256; ++value) every_byte += fmt::format(" {:02x}", value);
  say("0 pipe Linux x86_64");
  say("1" + every_byte);
  say("2 " + BringProbe().substr(0, kBringProbeBytes));
  say("3 gzip -dc sha256sum");
  const std::string begin = say("4 0 ");
  std::string text = begin.substr(begin.find('\n') + 1);
  std::vector<std::size_t> sizes;
  std::string arrived;
  for (; text != "0\n"; text = say("5 +")) {
    const std::size_t line = text.find('\n');
    sizes.push_back(std::stoul(text));
    arrived += text.substr(line + 1);
    ASSERT_EQ(text.size() - line - 1, sizes.back());
    if (sizes.back() > 32768) pause = milliseconds(5000);
  }
  EXPECT_EQ(arrived, content);
  EXPECT_THAT(sizes, testing::ElementsAre(4096, 8192, 16384, 32768, 65536, 32768, 16384, 8192, 4096, 2048, 1024,
                                          512, testing::_))
      << "512 is the least";
}

// The first line has all of a usual order, and only part of a large one.
TEST(BringCommandsTest, LinesFitIntoAShell) {
  BringOrders orders;
  for (const char* name : {"x86_64", "aarch64", "armv7l", "riscv64"}) {
    orders.peers.push_back({name, {std::string("Linux ") + name}, "", 2'900'000, std::string(64, '0')});
  }
  const std::string token(36, '7');
  orders.arguments = {"--allow", "127.0.0.1:22"};
  EXPECT_THAT(BringCommands(orders, token).Enter(), HasSubstr("exec \"$f\" '--allow'"));
  orders.folder.assign(500, 'd');
  orders.arguments.assign(80, "100.100.10.1:222");
  const BringCommands more(orders, token);
  EXPECT_LT(more.Enter().size(), 1024U);
  EXPECT_LT(more.Prepare(false).size(), 4096U);
  EXPECT_LT(more.Receive(orders.peers[0], "gzip -dc", false).size(), 4096U);
}

}  // namespace
}  // namespace gxtool
