#include "base/base_thread.h"

#include <signal.h>

#include "base/event.h"
#include "support/test.h"
#include "support/wait.h"

namespace {

// Writes its hooks and steps into story_; `step` is the work of a step.
class Worker final : public CBaseThread {
 public:
  explicit Worker(std::function<bool()> step) : step_(std::move(step)) {}
  ~Worker() override { Stop(); }

  // Waits for the end of a run.
  void AwaitExit() {
    ASSERT_TRUE(gxtest::Eventually([&] { return exited_.exchange(false); }));
  }

  std::string story_;
  bool running_in_on_exit_ = true;

 private:
  void OnBegin() override { story_ += "begin "; }
  bool ThreadLoop() override {
    if (story_.size() < 100) story_ += "step ";  // a run may take any number of them
    return step_();
  }
  void OnExit() override {
    story_ += "exit ";
    running_in_on_exit_ = IsRunning();
    exited_ = true;
  }

  const std::function<bool()> step_;
  std::atomic<bool> exited_{false};
};

TEST(BaseThreadTest, HooksSurroundTheStepsOfEachRun) {
  int left = 0;
  Worker worker([&] { return left < 0 || --left != 0; });
  EXPECT_TRUE(worker.Stop()) << "never run";
  for (int run = 0; run < 2; ++run) {
    left = 2;
    EXPECT_TRUE(worker.Run());
    worker.AwaitExit();
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_TRUE(worker.Run()) << "after its exit it counts as started until Stop";
    EXPECT_TRUE(worker.Stop(0)) << "Stop waits whatever the limit";
    EXPECT_EQ(std::exchange(worker.story_, ""), "begin step step exit ");
    EXPECT_FALSE(worker.running_in_on_exit_);
  }
  left = -1;  // every step asks for another one
  EXPECT_TRUE(worker.Run());
  EXPECT_TRUE(worker.IsRunning());
  EXPECT_TRUE(worker.Stop());
  EXPECT_FALSE(worker.IsRunning());
  EXPECT_TRUE(worker.story_.ends_with("exit "));
}

TEST(EventTest, AWaitConsumesTheSignalOfAnEventWithAutomaticReset) {
  for (const bool manual_reset : {false, true}) {
    tarn::event_t* event = tarn::event_create(manual_reset, true);
    EXPECT_EQ(tarn::event_timedwait(event, -1), tarn::event_ok) << "without a limit";
    EXPECT_EQ(tarn::event_timedwait(event, -999), manual_reset ? tarn::event_ok : tarn::event_timeout);
    EXPECT_EQ(tarn::event_set(event), tarn::event_ok);
    EXPECT_EQ(tarn::event_reset(event), tarn::event_ok);
    EXPECT_EQ(tarn::event_timedwait(event, 1), tarn::event_timeout);
    tarn::event_destroy(event);
  }
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
  for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT}) {
    EXPECT_FALSE(sigismember(&workers, signal)) << signal;
  }
}

}  // namespace
