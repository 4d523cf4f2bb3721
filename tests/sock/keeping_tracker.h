// A reactor that keeps its tasks until the test runs them.
#ifndef GX_TESTS_SOCK_KEEPING_TRACKER_H
#define GX_TESTS_SOCK_KEEPING_TRACKER_H

#include <gtest/gtest.h>
#include <poll.h>

#include <vector>

#include "reactor/tcp_task.h"

class KeepingTracker final : public ITCPTaskTracker {
 public:
  bool AddTask(const CTCPTask& task) override {
    tasks.push_back(task);
    return true;
  }
  void RunLast() {
    const CTCPTask task = tasks.back();
    tasks.pop_back();
    const short event = task.type() == kWaitWritable ? POLLOUT : POLLIN;
    pollfd waiter{task.socket(), event, 0};
    EXPECT_TRUE(task->timeout() || poll(&waiter, 1, 0) == 1) << "a reactor would not run it yet";
    task->Done();
  }
  std::vector<CTCPTask> tasks;
};

#endif  // GX_TESTS_SOCK_KEEPING_TRACKER_H
