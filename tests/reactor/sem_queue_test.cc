#include "reactor/sem_queue.h"

#include <gtest/gtest.h>

#include "reactor_support.h"

namespace {

TEST(SemQueueTest, TakesTasksOnlyWhileOpenAndKeepsTheirOrder) {
  sem_queue<CTCPTask> queue;
  int dropped = 0;
  const auto task = [&](int id) {
    // The call back waits for itself when the queue lets go of a task under its lock.
    return CTCPTask(new FakeTask(id, kSelectReadable, {}, [&] { dropped += queue.open(0) ? 100 : 1; }));
  };
  EXPECT_FALSE(queue.push(CTCPTask(), true));
  EXPECT_FALSE(queue.close());
  EXPECT_TRUE(queue.open(0));

  EXPECT_TRUE(queue.push(task(1), true));
  EXPECT_TRUE(queue.push(task(2), true));
  EXPECT_TRUE(queue.push(task(3), false));
  EXPECT_FALSE(queue.open(0)) << "an open queue keeps what it holds";
  CTCPTask out;
  for (const int expected : {3, 1, 2}) {
    ASSERT_TRUE(queue.peek(out));
    EXPECT_EQ(out.socket(), expected);
  }
  EXPECT_FALSE(queue.peek(out));
  EXPECT_EQ(out.socket(), 2) << "untouched";
  EXPECT_EQ(dropped, 2);

  EXPECT_TRUE(queue.push(task(4), true));
  EXPECT_TRUE(queue.close());
  EXPECT_EQ(dropped, 102) << "closed before its tasks go";
  EXPECT_FALSE(queue.peek(out));
}

}  // namespace
