#include "base/base_thread.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/wait.h"

namespace {

using gxtest::kPatience;

// Tells what it did; `step` is the work.
class Worker final : public CBaseThread {
 public:
  explicit Worker(std::function<bool()> step) : step_(std::move(step)) {}
  ~Worker() override { Stop(); }

  void AwaitExit() { ASSERT_EQ(exited_.get_future().wait_for(kPatience), std::future_status::ready); }
  void ExpectAnotherRun() { exited_ = {}; }

  std::string story_;
  std::function<void()> on_begin_ = [] {};
  bool running_in_on_exit_ = true;

 private:
  void OnBegin() override {
    story_ += "begin ";
    on_begin_();
  }
  bool ThreadLoop() override {
    story_ += "step ";
    return step_();
  }
  void OnExit() override {
    story_ += "exit ";
    running_in_on_exit_ = IsRunning();
    exited_.set_value();
  }

  const std::function<bool()> step_;
  std::promise<void> exited_;
};

TEST(BaseThreadTest, HooksSurroundTheStepsOfOneRun) {
  int left = 2;
  std::promise<void> go;
  Worker worker([&left, gate = go.get_future().share()] {
    gate.wait();
    return --left > 0;
  });
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_TRUE(worker.Run());
  EXPECT_TRUE(worker.Run());
  EXPECT_TRUE(worker.IsRunning());
  go.set_value();
  worker.AwaitExit();
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_TRUE(worker.Run()) << "it has exited, and still counts as started";
  EXPECT_TRUE(worker.Stop());
  EXPECT_EQ(worker.story_, "begin step step exit ");
  EXPECT_FALSE(worker.running_in_on_exit_);
}

TEST(BaseThreadTest, StopEndsAnEndlessLoopAndTheThreadCanStartAgain) {
  std::promise<void> stepped;
  bool told = false;
  Worker worker([&] {
    if (!std::exchange(told, true)) stepped.set_value();
    return true;
  });
  for (int round = 0; round < 2; ++round) {
    worker.ExpectAnotherRun();
    EXPECT_TRUE(worker.Run());
    EXPECT_TRUE(worker.IsRunning());
    ASSERT_EQ(stepped.get_future().wait_for(kPatience), std::future_status::ready);
    EXPECT_TRUE(worker.Stop(0)) << "the limit is not used";
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_TRUE(worker.story_.starts_with("begin step "));
    EXPECT_TRUE(worker.story_.ends_with(" exit "));
    worker.story_.clear();
    stepped = {};
    told = false;
  }
}

// Each of the three waits may come first; the thread is joined once.
TEST(BaseThreadTest, WaitsMayFollowEachOther) {
  Worker worker([] { return false; });
  EXPECT_TRUE(worker.WaitThreadEnd(0)) << "not started";
  EXPECT_TRUE(worker.WaitForStop(0));
  worker.Run();
  EXPECT_TRUE(worker.WaitThreadEnd(0));
  EXPECT_EQ(worker.story_, "begin step exit ") << "it was not asked to stop";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(worker.WaitForTimeOut(20));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(19));
  EXPECT_TRUE(worker.WaitForStop(0));
  EXPECT_TRUE(worker.WaitThreadEnd(0));
  EXPECT_TRUE(worker.Stop());
  EXPECT_TRUE(worker.Stop());
}

TEST(BaseThreadTest, ADetachedThreadTakesOneStepAndStopDoesNotWaitForIt) {
  std::promise<void> go;
  Worker worker([gate = go.get_future().share()] {
    gate.wait();
    return true;
  });
  EXPECT_TRUE(worker.Run_(true));
  EXPECT_TRUE(worker.WaitThreadEnd(0));
  EXPECT_TRUE(worker.Stop()) << "the step is still blocked";
  go.set_value();
  worker.AwaitExit();
  EXPECT_TRUE(worker.story_.ends_with("exit "));
  EXPECT_EQ(worker.story_.find("step step"), std::string::npos);
}

TEST(BaseThreadTest, TheHostsSignalsStayOnTheHostsThreads) {
  sigset_t before;
  sigset_t after;
  sigset_t workers;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  Worker worker([&] { return pthread_sigmask(SIG_SETMASK, nullptr, &workers) != 0; });
  worker.Run();
  worker.AwaitExit();
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGALRM, SIGCHLD, SIGUSR1, SIGPIPE}) {
    EXPECT_TRUE(sigismember(&workers, signal)) << signal;
    EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
  }
}

TEST(BaseThreadTest, AnExceptionEndsTheThreadAndNotTheProcess) {
  Worker in_step([]() -> bool { throw std::runtime_error("step"); });
  in_step.Run();
  in_step.AwaitExit();
  EXPECT_EQ(in_step.story_, "begin step exit ");

  Worker in_hook([] { return true; });
  in_hook.on_begin_ = [] { throw 1; };
  in_hook.Run();
  in_hook.AwaitExit();
  EXPECT_EQ(in_hook.story_, "begin exit ");
}

}  // namespace
