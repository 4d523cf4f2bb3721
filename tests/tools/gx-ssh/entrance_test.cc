#include "gx-ssh/entrance.h"

#include "common/control_frames.h"
#include "support/test.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;

// The test plays the module and the program's own connections, and records what the entrance tells.
class EntranceTest : public testing::Test, protected Entrance::Handler {
 protected:
  void OnRefused(std::uint32_t connection) override { story_ += "refuse " + std::to_string(connection) + "; "; }
  void OnInputSent(std::uint32_t connection) override { story_ += "end " + std::to_string(connection) + "; "; }
  void OnEntered(std::uint32_t, Route) override {}
  void OnWaiting() override { ++waits_; }
  void OnRoom() override { story_ += "room; "; }

  // The module writes, at most `step` bytes at a time.
  std::string Write(std::string_view bytes, std::size_t step = std::string::npos) {
    std::string out;
    for (std::size_t at = 0; at < bytes.size(); at += std::min(step, bytes.size() - at)) {
      out += entrance_->Filter(bytes.substr(at, step));
    }
    SendOut(out);
    return out;
  }
  // Tells the entrance that these frames have gone out, as the output does.
  void SendOut(std::string_view frames) {
    while (!frames.empty()) {
      const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(frames.data());
      entrance_->OnSent(header);
      frames.remove_prefix(gxmod::kFrameHeaderBytes + header.length);
    }
  }
  std::string TakeStory() { return std::exchange(story_, {}); }
  bool HearsTheFarSide(std::uint32_t id) const { return entrance_->Admits({5, id, ConnectionType::Data}); }

  std::string story_;
  int waits_ = 0;
  std::shared_ptr<Entrance> entrance_{new Entrance(true, *this)};
};

std::string Secret(const Entrance::Pass& pass) { return {pass.secret().begin(), pass.secret().end()}; }
const std::string kTarget = "db.internal:5432";
// The module's own target, which the entrance replaces with the target of the pass.
std::string Connect(std::uint32_t id, const std::string& target = "127.0.0.1:22") {
  return MakeFrame(ConnectionType::Connect, id, target);
}
std::string Data(std::uint32_t id, std::string_view bytes) {
  return MakeFrame(ConnectionType::Data, id, bytes);
}
std::string Close(std::uint32_t id) { return MakeFrame(ConnectionType::Close, id, ""); }

// For every way to cut the secret into frames, and the frames into writes.
TEST_F(EntranceTest, OwnConnectionsPassWithoutTheirSecretToTheirTarget) {
  const std::string list = MakeFrame(ConnectionType::ChannelList, 0, "name=ssh;");
  std::uint32_t id = 0;
  for (std::size_t first = 0; first <= 20; ++first) {
    for (const std::size_t step : {1u, 7u, 16u, 17u, 1000u}) {
      const std::string target = "host" + std::to_string(++id) + ":1";
      const auto pass = entrance_->Expect({"", target});
      const std::string bytes = Secret(pass) + "hello";
      const std::string rest = first <= 16
                                   ? Data(id, "hello")
                                   : Data(id, bytes.substr(16, first - 16)) + Data(id, bytes.substr(first));
      EXPECT_EQ(Write(Connect(id) + list + Data(id, bytes.substr(0, first)) + Data(id, bytes.substr(first)) +
                          Close(id),
                      step),
                list + Connect(id, target) + rest + Close(id))
          << first << " " << step;
    }
  }
  EXPECT_EQ(TakeStory(), "");
}

TEST_F(EntranceTest, NothingOfAStrangerPassesEitherWay) {
  std::optional<Entrance::Pass> pass(entrance_->Expect({"", kTarget}));
  const std::string secret = Secret(*pass);
  EXPECT_EQ(Write(Connect(1) + Data(1, "GET / HTTP/1.1\r\n\r\n") + Data(1, secret) + Close(1)), "");
  EXPECT_EQ(TakeStory(), "refuse 1; ") << "a secret that comes late counts for nothing";
  std::string almost = secret;
  almost.back() ^= 1;
  EXPECT_EQ(Write(Connect(2) + Data(2, secret.substr(0, 15)) + Close(2) + Connect(3) + Data(3, almost)), "");
  EXPECT_EQ(TakeStory(), "refuse 3; ") << "who has left by itself needs no Close";
  EXPECT_FALSE(HearsTheFarSide(3));

  EXPECT_NE(Write(Connect(4) + Data(4, secret)), "");
  EXPECT_TRUE(HearsTheFarSide(4));
  EXPECT_EQ(Write(Connect(5) + Data(5, secret)), "") << "a secret counts once";
  EXPECT_NE(Write(Close(4)), "");
  EXPECT_FALSE(HearsTheFarSide(4));

  pass.emplace(entrance_->Expect({"", kTarget}));
  const std::string given_up = Secret(*pass);
  pass.reset();
  EXPECT_EQ(Write(Connect(6) + Data(6, given_up)), "");
}

TEST_F(EntranceTest, SilentStrangersGoAndKeepNobodyOut) {
  const auto begin = Entrance::Clock::now();
  EXPECT_FALSE(entrance_->Expire(begin));
  Write(Connect(1));
  EXPECT_EQ(waits_, 1);
  const auto next = entrance_->Expire(begin);
  ASSERT_TRUE(next);
  EXPECT_GE(*next, begin + Entrance::kSilence);
  EXPECT_EQ(TakeStory(), "");
  EXPECT_FALSE(entrance_->Expire(*next));
  EXPECT_EQ(TakeStory(), "refuse 1; ");

  for (std::uint32_t id = 2; id <= 2 + Entrance::kWaiting; ++id) Write(Connect(id));
  EXPECT_EQ(TakeStory(), "refuse 2; ") << "of too many the one that has waited longest goes";
  EXPECT_EQ(waits_, 2) << "one call of Expire is asked for at a time";
  const auto pass = entrance_->Expect({"", kTarget});
  EXPECT_EQ(Write(Connect(100)), "");
  EXPECT_EQ(TakeStory(), "") << "those that are expected take nobody's place";
  EXPECT_EQ(Write(Data(100, Secret(pass) + "x")), Connect(100, kTarget) + Data(100, "x"));
}

// The module's queue must not overflow, and everyone who asked for room must hear of it.
TEST_F(EntranceTest, NoMoreSetOutThanTheModulesQueueHolds) {
  std::list<Entrance::Pass> passes;
  const auto send_all = [&] {
    while (entrance_->HasRoom()) passes.push_back(entrance_->Expect({"", kTarget}));
  };
  send_all();
  EXPECT_EQ(passes.size(), Entrance::kOnTheirWay);
  for (std::uint32_t id = 1; id < Entrance::kOnTheirWay / 2; ++id) {
    Write(Connect(id) + Data(id, Secret(passes.front())));
    passes.pop_front();
  }
  EXPECT_EQ(TakeStory(), "");
  EXPECT_TRUE(entrance_->HasRoom()) << "for another listener, which takes nothing from the one that waits";
  passes.pop_front();
  EXPECT_EQ(TakeStory(), "room; ") << "one that gives up makes room as well";
  passes.pop_front();
  EXPECT_EQ(TakeStory(), "") << "nobody waits any more";
}

// The far side hears of the end once, after the Connect and after the last byte.
TEST_F(EntranceTest, TheEndOfTheInputFollowsTheLastByte) {
  auto early = entrance_->Expect({"", kTarget});
  const std::string on_its_way(entrance_->Filter(Connect(1) + Data(1, Secret(early))));
  EXPECT_TRUE(early.EndInput(0));
  EXPECT_EQ(TakeStory(), "");
  SendOut(on_its_way);
  EXPECT_EQ(TakeStory(), "end 1; ");
  for (const std::size_t size : {0u, 5u}) {
    for (const std::size_t told_after : {0u, 1u, 2u}) {
      auto pass = entrance_->Expect({"", kTarget});
      const std::uint32_t id = static_cast<std::uint32_t>(10 + 10 * size + told_after);
      const std::string bytes(size, 'x');
      const auto tell_after = [&](std::size_t step) { EXPECT_TRUE(step != told_after || pass.EndInput(size)); };
      tell_after(0);
      Write(Connect(id) + Data(id, Secret(pass).substr(0, 10)));
      tell_after(1);
      EXPECT_EQ(TakeStory(), "");
      Write(Data(id, Secret(pass).substr(10) + bytes.substr(0, size / 2)));
      tell_after(2);
      if (size > 0) {
        EXPECT_EQ(TakeStory(), "");
        Write(Data(id, bytes.substr(size / 2)));
      }
      EXPECT_EQ(TakeStory(), "end " + std::to_string(id) + "; ") << size << " " << told_after;
      Write(Close(id));
      EXPECT_EQ(TakeStory(), "");
    }
  }
}

}  // namespace
}  // namespace gxtool
