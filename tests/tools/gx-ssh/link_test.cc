#include "gx-ssh/link.h"

#include <set>

#include "common/ready_line.h"
#include "gx-ssh/child.h"
#include "gx-ssh/console.h"
#include "gx-ssh/link_policy.h"
#include "gx-ssh/module_library.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(LinkPolicyTest, PausesGrowBetweenTheirBoundsAndVary) {
  LinkPolicy policy(true, 0);
  milliseconds most = LinkPolicy::kShortest;
  std::set<milliseconds> pauses;
  for (int failure = 0; failure < 40; ++failure) {
    const auto pause = *pauses.insert(policy.OnDown(kExitNotReady, {}).value()).first;
    EXPECT_GE(pause, std::max(most / 2, LinkPolicy::kShortest)) << failure;
    EXPECT_LE(pause, most) << failure;
    most = std::min<milliseconds>(most * 2, LinkPolicy::kLongest);
  }
  EXPECT_GT(pauses.size(), 10u);
}

// A link that breaks soon after it came up counts as one more failure, like one that never comes up.
TEST(LinkPolicyTest, OnlyALinkThatStaysUpCountsAnew) {
  LinkPolicy policy(true, 2);
  LinkPolicy::Clock::time_point now{};
  const auto up_for = [&](seconds time) {
    policy.OnUp(now);
    now += time;
    return policy.OnDown(kExitLinkLost, now);
  };
  EXPECT_TRUE(up_for(LinkPolicy::kStable));
  EXPECT_TRUE(up_for(LinkPolicy::kStable - seconds(1)));
  EXPECT_EQ(up_for(LinkPolicy::kStable), LinkPolicy::kShortest) << "the first failure again";
  EXPECT_TRUE(up_for(seconds(1)));
  now += LinkPolicy::kStable;
  EXPECT_FALSE(policy.OnDown(kExitNotReady, now));
  EXPECT_FALSE(LinkPolicy(true, 0).OnDown(kExitModule, {})) << "another try cannot help";
  EXPECT_FALSE(LinkPolicy(false, 0).OnDown(kExitLinkLost, {}));
}

class CountingOwner final : public Link::Owner {
 public:
  void OnBringing(const StoredPeer&, std::size_t, std::size_t) override {}
  void OnLinkUp(const std::string&, std::uint16_t) override { up = true; }
  void OnLinkDown(const Failure&, bool) override {}
  void OnRoom() override {}
  void OnInputDelivered() override { ++delivered; }
  void OnRefused(const std::string&) override { ++refused; }
  void OnReset() override { ++resets; }
  void OnRoute(std::uint32_t, Route) override {}
  void OnFrame(const gxmod::FrameHeader&, bool sent) override { marker_came = marker_came || !sent; }

  bool up = false;
  int delivered = 0;
  int refused = 0;
  int resets = 0;
  std::atomic<bool> marker_came{false};
};

// The event loop does not run while the frames come.
TEST(LinkTest, FloodOfControlFramesLeavesLittleForTheEventLoop) {
  constexpr int kFrames = 1000;
  const TempDir folder;
  {
    std::ofstream flood(folder.path() + "/flood", std::ios::binary);
    flood << ReadyLine(Side::kPeer);
    for (int i = 0; i < kFrames; ++i) {
      flood << MakeFrame(kEndOfInputFrame, 1, {}) << MakeFrame(kResetFrame, 1, {})
            << MakeFrame(kResetFrame, 1, "no route") << MakeFrame(kGoodbyeFrame, 0, "bye");
    }
    flood << MakeFrame(gxmod::ConnectionType::Data, 1, {});
  }
  Options options;
  options.carrier = {"sh", "-c", "read greeting; cat " + folder.path() + "/flood -"};
  asio::io_context io;
  ModuleLog log(0);
  ModuleLibrary module(GX_MODULE, log);
  Console console;
  Terminal terminal;
  CountingOwner owner;
  Link link(io, options, module, console, terminal, owner);
  while (!owner.up && io.run_one_for(kPatience) > 0) {
  }
  ASSERT_TRUE(Eventually([&owner] { return owner.marker_came.load(); }));
  EXPECT_LT(io.poll(), 20U) << "handlers that wait";
  EXPECT_EQ(owner.delivered, 1);
  EXPECT_EQ(owner.refused, 1);
  EXPECT_EQ(owner.resets, 1);
}

// All descendants of the child hold the pipe, so it ends when the last of them has ended.
TEST(ChildTest, LeavesNothingBehind) {
  const std::string ready = "trap '' TERM HUP INT; kill -USR1 $PPID; echo ready; ";
  const std::string stubborn = "while :; do sleep 60; done";
  for (const std::string& command :
       {ready + stubborn, "(" + ready + stubborn + ") & wait",
        "(" + ready + "kill -KILL $$; " + stubborn + ") & wait", std::string("echo ready; sleep 60; :")}) {
    Pipe pipe = MakePipe();
    Child child({{"sh", "-c", command}, 0, pipe.write.get(), 2});
    pipe.write.Reset();
    EXPECT_EQ(ReadExactly(pipe.read.get(), 6), "ready\n");
    child.End();
    EXPECT_EQ(ReadToEnd(pipe.read.get()), "") << command;
  }
}

}  // namespace
}  // namespace gxtool
