#include "reactor/sem_queue.h"

#include <gtest/gtest.h>

#include "reactor_support.h"

namespace {

// A task's destructor that calls back waits for itself when the queue lets go of the task under its lock.
TEST(SemQueueTest, DropsTasksOutsideTheLock) {
  sem_queue<CTCPTask> queue;
  int dropped = 0;
  const auto task = [&] {
    return CTCPTask(new FakeTask(1, kSelectReadable, {}, [&] { dropped += queue.open(0) ? 100 : 1; }));
  };
  EXPECT_FALSE(queue.push(CTCPTask(), true));
  EXPECT_TRUE(queue.open(0));
  EXPECT_TRUE(queue.push(task(), true));
  EXPECT_FALSE(queue.open(0)) << "an open queue keeps what it holds";
  CTCPTask out;
  EXPECT_TRUE(queue.peek(out));
  EXPECT_TRUE(queue.push(task(), true));
  EXPECT_TRUE(queue.peek(out));
  EXPECT_EQ(dropped, 1);
  EXPECT_TRUE(queue.push(task(), true));
  EXPECT_TRUE(queue.close());
  EXPECT_EQ(dropped, 101) << "closed before its tasks go";
}

}  // namespace
