#include "reactor/reactor.h"

#include "reactor_support.h"
#include "support/descriptor_limit.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"

namespace {

using gxtest::Eventually;
using gxtest::OpenDescriptors;
using gxtest::Threads;

class ReactorTest : public testing::Test {
 protected:
  // Makes the reactor run a task, or a timer, and waits for that.
  bool CompletesTask() {
    const SocketPair pair;
    Counter done;
    EXPECT_TRUE(
        reactor_->AddTask(CTCPTask(new FakeTask(pair.descriptor(), kSelectWritable, [&] { done.Add(); }))));
    return done.WaitFor(1);
  }
  bool CompletesTimer() {
    Counter done;
    EXPECT_TRUE(reactor_->SetTimer(new FakeTimer([&] { done.Add(); }), 0, true));
    return done.WaitFor(1);
  }

  LogCapture log_;
  std::optional<CReactor_T<tcp_select_tracker>> reactor_{std::in_place};
};

TEST_F(ReactorTest, RunsStopsAndRunsAgainWithoutLeavingAnything) {
  EXPECT_TRUE(reactor_->Stop()) << "never run";
  const SocketPair quiet;
  const auto descriptors = OpenDescriptors();
  reactor_->Run(1);
  EXPECT_TRUE(CompletesTask());
  // Counted with the work thread: the first thread of a process may bring one of the system's along.
  const auto threads = Threads() - 1;
  EXPECT_TRUE(reactor_->Stop());
  Counter fired, gone;
  for (int run = 1; run <= 3; ++run) {
    EXPECT_TRUE(reactor_->Run(1));
    EXPECT_TRUE(reactor_->Run(1));
    EXPECT_TRUE(Eventually([&] { return Threads() == threads + 1; }));
    EXPECT_TRUE(CompletesTimer());
    EXPECT_TRUE(CompletesTask());
    reactor_->AddTask(
        CTCPTask(new FakeTask(quiet.descriptor(), kSelectReadable, kNothing, [&] { gone.Add(); })));
    reactor_->SetTimer(new FakeTimer(kNothing, [&] { gone.Add(); }), 3'600'000, true);
    EXPECT_TRUE(reactor_->Stop());
    EXPECT_FALSE(reactor_->IsRunning());
    EXPECT_TRUE(Eventually([&] { return Threads() == threads; }));
    EXPECT_EQ(gone.Get(), 2 * run) << "a stop drops what waits";
    const CTCPTask late(new FakeTask(quiet.descriptor(), kSelectWritable, [&] { fired.Add(); }));
    EXPECT_FALSE(reactor_->AddTask(late));
    EXPECT_TRUE(reactor_->SetTimer(new FakeTimer([&] { fired.Add(); }), 0, true));
  }
  reactor_.reset();
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(fired.Get(), 0) << "what was armed while stopped is gone after the restart";
}

TEST_F(ReactorTest, ATimerThatIsAlwaysDueDoesNotHinderAStop) {
  Counter fired;
  CRefObj<FakeTimer> timer;
  timer = new FakeTimer([&] {
    fired.Add();
    reactor_->SetTimer(timer.get(), 0, true);
  });
  for (const bool once : {false, true}) {
    ASSERT_TRUE(reactor_->Run(1));
    reactor_->SetTimer(timer.get(), 0, once);
    EXPECT_TRUE(fired.WaitFor(fired.Get() + 10));
    EXPECT_TRUE(reactor_->Stop());
  }
  reactor_.reset();
}

TEST_F(ReactorTest, ATaskThatThrowsIsLoggedAndTheOthersAreServed) {
  ASSERT_TRUE(reactor_->Run(1));
  const SocketPair pair;
  const Action accident = [] { throw std::runtime_error("accident"); };
  reactor_->AddTask(CTCPTask(new FakeTask(pair.descriptor(), kSelectWritable, accident)));
  reactor_->SetTimer(new FakeTimer(accident), 0, true);
  EXPECT_TRUE(CompletesTimer());
  EXPECT_TRUE(CompletesTask());
  EXPECT_TRUE(CompletesTask());
  EXPECT_TRUE(reactor_->Stop());
  using testing::Contains, testing::Pair, testing::HasSubstr, testing::Not;
  const auto lines = log_.Lines();
  EXPECT_THAT(lines, Contains(Pair(kGXModLogError, HasSubstr("exception"))).Times(2));
  EXPECT_THAT(lines, Not(Contains(Pair(kGXModLogInfo, HasSubstr("closed"))))) << "its wake-up socket";
}

// The system tells every thread of a change of user ids with a signal that nobody can block.
TEST_F(ReactorTest, AChangeOfUserIdsEndsNothing) {
  ASSERT_TRUE(reactor_->Run(1));
  const SocketPair quiet;
  Counter served;
  reactor_->AddTask(CTCPTask(new FakeTask(quiet.descriptor(), kSelectReadable, [&] { served.Add(); })));
  const auto interrupted = [&] {
    EXPECT_EQ(setresuid(static_cast<uid_t>(-1), static_cast<uid_t>(-1), static_cast<uid_t>(-1)), 0);
    const LogCapture::Line line(kGXModLogTrace, "[select_tracker] select return -1, cause 4");
    return testing::Value(log_.Lines(), testing::Contains(line));
  };
  EXPECT_TRUE(Eventually(interrupted)) << "not one select was interrupted";
  quiet.Send();
  EXPECT_TRUE(served.WaitFor(1));
  EXPECT_TRUE(reactor_->Stop());
}

// Where no descriptor that select can watch is left for the wake-up socket the connections that there are must
// be served on.
TEST_F(ReactorTest, WithoutADescriptorForItsSocketItGoesOn) {
  const SocketPair quiet, writable;
  {
    const gxtest::TakenDescriptors taken(FD_SETSIZE);
    ASSERT_TRUE(reactor_->Run(1));
    reactor_->AddTask(CTCPTask(new FakeTask(quiet.descriptor(), kSelectReadable)));
    for (int i = 0; i < 10; ++i) {
      Counter done;
      reactor_->AddTask(CTCPTask(new FakeTask(writable.descriptor(), kSelectWritable, [&] { done.Add(); })));
      EXPECT_TRUE(done.WaitFor(1));
      EXPECT_TRUE(CompletesTimer());
    }
  }
  EXPECT_TRUE(CompletesTask());
  EXPECT_TRUE(reactor_->Stop());
  using testing::Contains, testing::Pair;
  EXPECT_THAT(log_.Lines(),
              Contains(Pair(kGXModLogError, "[select_tracker] udp loopback create failed")).Times(1));
}

}  // namespace
