#include "stream/thread_safty.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

TEST(ThreadSaftyTest, BelongsToOneOwnerUntilAllIsGivenBack) {
  IThreadSaftyImpl token;
  EXPECT_TRUE(token.Monopolize(7));
  EXPECT_TRUE(token.Monopolize(7));
  EXPECT_FALSE(token.Monopolize(8));
  token.Relinquish();
  EXPECT_FALSE(token.Monopolize(8));
  token.Relinquish();
  EXPECT_EQ(token.Owner(), 7) << "the last owner stays on record";
  EXPECT_TRUE(token.Monopolize(8));
  EXPECT_EQ(token.Owner(), 8);
}

TEST(ThreadSaftyTest, NeverHasTwoOwners) {
  constexpr int kRounds = 20000;
  IThreadSaftyImpl token;
  std::atomic<int> inside{0};
  std::atomic<bool> shared{false};
  std::vector<std::thread> threads;
  for (long id = 1; id <= 3; ++id) {
    threads.emplace_back([&, id] {
      for (int round = 0; round < kRounds; ++round) {
        if (!token.Monopolize(id)) continue;
        if (inside.fetch_add(1) != 0) shared = true;
        inside.fetch_sub(1);
        token.Relinquish();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(shared);
}

}  // namespace
