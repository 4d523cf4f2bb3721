#include "base/mutex_lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/singleton.h"

namespace {

// The kind of the mutex shows in what a second Lock does: a recursive one would need two Unlocks, a plain one
// would never return.
TEST(MutexLockTest, ASecondLockOnTheSameThreadIsRefusedSilently) NO_THREAD_SAFETY_ANALYSIS {
  CMutexLock lock;
  EXPECT_TRUE(lock.Lock());
  EXPECT_TRUE(lock.Lock());
  EXPECT_TRUE(lock.Unlock());
  std::thread([&lock]() NO_THREAD_SAFETY_ANALYSIS {
    EXPECT_TRUE(lock.Lock());
    EXPECT_TRUE(lock.Unlock());
  }).join();
}

struct Slow {
  Slow() { ++built; }
  inline static std::atomic<int> built{0};
};

TEST(SingletonTest, ManyThreadsGetOneInstance) {
  std::atomic<Slow*> seen[4] = {};
  std::vector<std::thread> threads;
  for (auto& place : seen) threads.emplace_back([&place] { place = CSingleton_T<Slow>::Instance(); });
  for (std::thread& thread : threads) thread.join();
  for (const auto& place : seen) EXPECT_EQ(place, CSingleton_T<Slow>::Instance());
  EXPECT_EQ(Slow::built, 1);
}

}  // namespace
