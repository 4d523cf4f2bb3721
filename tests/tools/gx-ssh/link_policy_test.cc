#include "gx-ssh/link_policy.h"

#include <set>

#include "support/test.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(LinkPolicyTest, PausesGrowBetweenTheirBoundsAndVary) {
  LinkPolicy policy(true, 0);
  milliseconds base = LinkPolicy::kShortest;
  std::set<std::int64_t> seen;
  for (int failure = 0; failure < 40; ++failure) {
    const auto pause = policy.OnDown(kExitNotReady, {});
    ASSERT_TRUE(pause);
    EXPECT_GE(*pause, std::max(base / 2, LinkPolicy::kShortest)) << failure;
    EXPECT_LE(*pause, base) << failure;
    base = std::min<milliseconds>(base * 2, LinkPolicy::kLongest);
    seen.insert(pause->count());
  }
  EXPECT_GT(seen.size(), 10u);
}

// A link that breaks soon after it came up is one more failure, and so is one that never comes up, however long
// ago the last one was stable.
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
}

TEST(LinkPolicyTest, GivesUpWhereAnotherTryCannotHelp) {
  EXPECT_FALSE(LinkPolicy(true, 0).OnDown(kExitModule, {}));
  EXPECT_FALSE(LinkPolicy(false, 0).OnDown(kExitLinkLost, {}));
}

}  // namespace
}  // namespace gxtool
