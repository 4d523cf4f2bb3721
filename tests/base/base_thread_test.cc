#include "base/base_thread.h"

#include <signal.h>

#include "base/event.h"
#include "support/test.h"
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
  bool running_in_on_exit_ = true;

 private:
  void OnBegin() override { story_ += "begin "; }
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

TEST(BaseThreadTest, HooksSurroundTheStepsOfEachRun) {
  int left = 0;
  Worker worker([&] { return --left != 0; });
  EXPECT_TRUE(worker.Stop()) << "never run";
  for (int run = 0; run < 2; ++run) {
    left = 2;
    worker.ExpectAnotherRun();
    EXPECT_TRUE(worker.Run());
    worker.AwaitExit();
    EXPECT_FALSE(worker.IsRunning());
    EXPECT_TRUE(worker.Run()) << "it has exited, and still counts as started";
    EXPECT_TRUE(worker.Stop(0)) << "the limit is not used";
    EXPECT_EQ(std::exchange(worker.story_, ""), "begin step step exit ");
    EXPECT_FALSE(worker.running_in_on_exit_);
  }
  left = -1;  // no step is the last one
  worker.ExpectAnotherRun();
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
