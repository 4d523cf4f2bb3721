#include "gx-ssh/bring_talk.h"

#include "common/ready_line.h"
#include "support/test.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

const std::string kA(12, 'a');
const std::string kB(12, 'b');

std::string Reply(const std::string& text) { return kA + kB + text + ' ' + kB + kA + "\r\n"; }

BringOrders Orders() {
  const std::string digest(64, '0');
  return {{{"x86_64", {"Linux x86_64"}, "x", 300'000, digest}, {"armv7", {"Linux armv7l"}, "a", 1, digest}},
          "",
          false,
          {"--allow", "h:1"}};
}

// A shell that says what the test tells it to say.
class BringTalkTest : public testing::Test {
 protected:
  std::string Say(const std::string& text) {
    now_ += pause_;
    return talk_.Take(text, now_);
  }
  std::string ProbeHex() const {
    std::string text;
    char digits[4];
    for (int value = 0; value < 256; ++value) {
      std::snprintf(digits, sizeof digits, " %02x", static_cast<unsigned>(value));
      text += digits;
    }
    return text;
  }
  std::string Probe() const { return BringProbe().substr(0, kBringProbeBytes); }
  // Up to the first piece.
  std::string Enter() {
    Say(Reply("0 pipe Linux x86_64"));
    Say(Reply("1" + ProbeHex()) + Reply("2 " + Probe()) + Reply("3 gzip -dc sha256sum"));
    return Say(Reply("4 0 "));
  }

  milliseconds pause_{1};
  BringTalk::Clock::time_point now_{};
  std::string content_ = std::string(192'100, 'c');
  BringTalk talk_{BringCommands(Orders(), kA + kB + std::string(24, '7')),
                  [this](const StoredPeer&, bool) { return content_; }};
};

// A terminal sends back what it gets, with other line ends.
TEST_F(BringTalkTest, AnEchoIsNoAnswer) {
  EXPECT_EQ(Say(talk_.Start() + "$ " + talk_.Start()), "");
  EXPECT_EQ(talk_.answers(), 0U);
  EXPECT_THAT(talk_.Silence("10s"), HasSubstr("no shell has answered within 10s; it said"));
  const std::string probe = Say(Reply("0 raw Linux x86_64"));
  EXPECT_EQ(Say(probe), "");
  EXPECT_EQ(talk_.state(), BringTalk::State::kTalking);
}

// A piece takes about a second, however slow the line is, and the last one is followed by a 0.
TEST_F(BringTalkTest, PiecesFitTheLine) {
  const std::string begin = Enter();
  std::string text = begin.substr(begin.find('\n') + 1);
  std::vector<std::size_t> sizes;
  std::string arrived;
  for (pause_ = milliseconds(1); text != "0\n"; text = Say(Reply("5 +"))) {
    const std::size_t line = text.find('\n');
    sizes.push_back(std::stoul(text));
    arrived += text.substr(line + 1);
    ASSERT_EQ(text.size() - line - 1, sizes.back());
    if (sizes.back() > 32768) pause_ = milliseconds(5000);
  }
  EXPECT_EQ(arrived, content_);
  EXPECT_THAT(sizes, testing::ElementsAre(4096, 8192, 16384, 32768, 65536, 32768, 16384, 8192, 4096, 2048, 1024,
                                          512, testing::_))
      << "512 is the least";
}

TEST_F(BringTalkTest, WhatIsFullGetsNoMore) {
  Enter();
  EXPECT_EQ(Say(Reply("5 -")), "0\n");
  Say(Reply("6 write gzip: stdout: No space left on device"));
  EXPECT_THAT(talk_.problem(), HasSubstr("the disk is full (\"gzip: stdout"));
}

TEST_F(BringTalkTest, WhatFollowsComesFromThePeer) {
  const std::string received = "\n" + ReadyLine(Side::kPeer);
  EXPECT_EQ(Say("motd\n" + kA + kB + "7 . " + kB + kA + received), "");
  EXPECT_EQ(talk_.state(), BringTalk::State::kRuns);
  EXPECT_EQ(talk_.rest(), received);
}

TEST_F(BringTalkTest, EachFarSideThatCannotHasItsSentence) {
  const struct {
    std::vector<std::string> said;
    const char* problem;
  } cases[] = {
      {{ReadyLine(Side::kPeer)}, "gx-ssh-peer runs there already; leave --bring out"},
      {{std::string(70'000, 'x')}, "it sends something else"},
      {{Reply("6 size 3")}, "answers what nobody has asked"},
  };
  for (const auto& [said, problem] : cases) {
    BringTalk talk(BringCommands(Orders(), kA + kB + "7"), {});
    for (const std::string& text : said) talk.Take(text, now_);
    EXPECT_EQ(talk.state(), BringTalk::State::kFailed);
    EXPECT_THAT(talk.problem(), HasSubstr(problem));
  }
}

// With all architectures and a target the first line still says all; with more it says less.
TEST(BringCommandsTest, LinesFitIntoAShell) {
  BringOrders orders;
  for (const char* name : {"x86_64", "aarch64", "armv7l", "riscv64"}) {
    orders.peers.push_back({name, {std::string("Linux ") + name}, "", 2'900'000, std::string(64, '0')});
  }
  orders.peers[2].machines.push_back("Linux armv8l");
  orders.arguments = {"--allow", "127.0.0.1:22"};
  const std::string token(36, '7');
  const std::string first = BringCommands(orders, token).Enter();
  EXPECT_THAT(first, HasSubstr("exec \"$f\" '--allow'"));
  EXPECT_LT(first.size(), 1024U);
  orders.folder = std::string(500, 'd');
  for (int count = 0; count < 40; ++count)
    orders.arguments.insert(orders.arguments.end(), {"--allow", "100.100.10.1:222"});
  const BringCommands more(orders, token);
  EXPECT_LT(more.Enter().size(), 1024U);
  for (const std::string& line :
       {more.Probe(), more.Prepare(false), more.Receive(orders.peers[0], "gzip -dc", false)}) {
    EXPECT_LT(line.size(), 4096U);
    EXPECT_EQ(line.find('\n'), line.size() - 1);
  }
}

}  // namespace
}  // namespace gxtool
