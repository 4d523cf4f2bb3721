#include "reactor/sem_queue.h"
#include "reactor/task_timed_queue.h"
#include "reactor_support.h"

namespace {

// The destructor of a task may call the queue, so the queue must not destroy tasks under its lock.
TEST(SemQueueTest, DropsTasksOutsideTheLock) {
  sem_queue<CTCPTask> queue;
  int dropped = 0;
  const auto push = [&] {
    const auto gone = [&] { dropped += queue.open(0) ? 100 : 1; };
    return queue.push(CTCPTask(new FakeTask(1, kSelectReadable, kNothing, gone)), true);
  };
  EXPECT_FALSE(queue.push(CTCPTask(), true)) << "not open yet";
  EXPECT_TRUE(queue.open(0));
  EXPECT_TRUE(push() && push() && push());
  EXPECT_FALSE(queue.open(0)) << "it is open already";
  CTCPTask out;
  EXPECT_TRUE(queue.peek(out) && queue.peek(out));
  EXPECT_EQ(dropped, 1);
  EXPECT_TRUE(queue.close());
  EXPECT_EQ(dropped, 101) << "it closes before it drops its tasks";
}

std::uint64_t g_now_ms;

class TaskTimedQueueTest : public testing::Test {
 protected:
  TaskTimedQueueTest() { g_now_ms = 1000; }

  // A timer task that appends its name to story_.
  CRefObj<ITask> Named(char name) {
    return new FakeTimer([this, name] { story_ += name; });
  }

  // The names of the timers that fire when `ms` more milliseconds have passed, at most 3.
  std::string After(std::uint64_t ms) {
    g_now_ms += ms;
    story_.clear();
    CRefObj<ITask> task;
    while (story_.size() < 3 && queue_.pop(task)) task->Done();
    return story_;
  }

  task_timed_queue queue_{[] { return g_now_ms; }};
  std::string story_;
};

TEST_F(TaskTimedQueueTest, FiresByDueTimeThenByOrderOfArming) {
  EXPECT_EQ(queue_.next_pop_time(), task_timed_queue::kNoTimer);
  queue_.push(Named('a'), 5, true);
  queue_.push(Named('b'), 3, true);
  queue_.push(Named('c'), 5, true);
  queue_.push(Named('d'), 3, true);
  EXPECT_EQ(queue_.next_pop_time(), 3u);
  EXPECT_EQ(After(2), "");
  EXPECT_EQ(After(1), "bd");
  EXPECT_EQ(After(1), "");
  g_now_ms += 10;
  EXPECT_EQ(queue_.next_pop_time(), 0u);
  EXPECT_EQ(After(0), "ac");
  EXPECT_EQ(After(100), "");
  queue_.push(Named('f'), 0x1'0000'0000ULL, true);
  EXPECT_EQ(queue_.next_pop_time(), task_timed_queue::kNoTimer - 1) << "differs from no timer";
}

TEST_F(TaskTimedQueueTest, RepeatsFromTheTimeOfFiring) {
  const CRefObj<ITask> slow = Named('s');
  queue_.push(slow, 10, false);
  EXPECT_EQ(After(14), "s");
  EXPECT_EQ(queue_.next_pop_time(), 10u);
  EXPECT_EQ(After(10), "s");
  queue_.erase(slow);
  queue_.push(Named('z'), 0, false);
  EXPECT_EQ(After(0), "zzz") << "with interval 0 it is always due";
}

TEST_F(TaskTimedQueueTest, EraseCancelsEveryTimerOfTheTask) {
  const CRefObj<ITask> twice = Named('t');
  queue_.erase(twice);
  queue_.push(twice, 5, true);
  queue_.push(twice, 6, false);
  queue_.push(Named('o'), 7, true);
  queue_.erase(twice);
  EXPECT_EQ(queue_.next_pop_time(), 5u) << "a cancelled timer counts until pop removes it";
  EXPECT_EQ(After(0), "");
  EXPECT_EQ(queue_.next_pop_time(), 7u);
  EXPECT_EQ(After(7), "o");
}

// The destructor of a task may arm a timer, so the queue must not destroy tasks under its lock.
TEST_F(TaskTimedQueueTest, DropsTasksOutsideTheLock) {
  const auto arm_clingy = [this](unsigned long long interval) {
    queue_.push(new FakeTimer(kNothing, [this] { queue_.push(Named('n'), 0, true); }), interval, true);
  };
  arm_clingy(50);
  queue_.clean();
  EXPECT_EQ(After(0), "n");
  arm_clingy(0);
  queue_.push(Named('a'), 0, true);
  EXPECT_EQ(After(0), "an") << "the second pop releases the first task";
}

}  // namespace
