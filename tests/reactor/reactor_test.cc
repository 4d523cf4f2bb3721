#include "reactor/reactor.h"

#include "reactor_support.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/shortage.h"

namespace {

using gxtest::Eventually;
using gxtest::OpenDescriptors;
using gxtest::Threads;

class ReactorTest : public testing::Test {
 protected:
  // Gives the reactor a task, or a timer, and waits until it has run.
  bool CompletesTask() {
    const SocketPair pair;
    Counter done{0};
    EXPECT_TRUE(reactor_->AddTask(CTCPTask(new FakeTask(pair.descriptor(), kSelectWritable, [&] { ++done; }))));
    return Reaches(done, 1);
  }
  bool CompletesTimer() {
    Counter done{0};
    EXPECT_TRUE(reactor_->SetTimer(new FakeTimer([&] { ++done; }), 0, true));
    return Reaches(done, 1);
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
  // Counted while the work thread runs: with its first thread a process may get one of the sanitizer's.
  const auto threads = Threads() - 1;
  EXPECT_TRUE(reactor_->Stop());
  Counter fired{0}, gone{0};
  for (int run = 1; run <= 3; ++run) {
    EXPECT_TRUE(reactor_->Run(1));
    EXPECT_TRUE(reactor_->Run(1));
    EXPECT_TRUE(Eventually([&] { return Threads() == threads + 1; }));
    EXPECT_TRUE(CompletesTimer());
    EXPECT_TRUE(CompletesTask());
    reactor_->AddTask(CTCPTask(new FakeTask(quiet.descriptor(), kSelectReadable, kNothing, [&] { ++gone; })));
    reactor_->SetTimer(new FakeTimer(kNothing, [&] { ++gone; }), 3'600'000, true);
    EXPECT_TRUE(reactor_->Stop());
    EXPECT_FALSE(reactor_->IsRunning());
    EXPECT_TRUE(Eventually([&] { return Threads() == threads; }));
    EXPECT_EQ(gone, 2 * run) << "a stop drops what waits";
    const CTCPTask late(new FakeTask(quiet.descriptor(), kSelectWritable, [&] { ++fired; }));
    EXPECT_FALSE(reactor_->AddTask(late));
    EXPECT_TRUE(reactor_->SetTimer(new FakeTimer([&] { ++fired; }), 0, true));
  }
  reactor_.reset();
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(fired, 0) << "a start drops what was added while it was stopped";
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
  EXPECT_THAT(lines, Not(Contains(Pair(kGXModLogInfo, HasSubstr("closed"))))) << "the wake-up socket";
}

// The system interrupts all threads when user ids change, by a signal that cannot be blocked.
TEST_F(ReactorTest, AChangeOfUserIdsEndsNothing) {
  ASSERT_TRUE(reactor_->Run(1));
  const SocketPair quiet;
  Counter served{0};
  reactor_->AddTask(CTCPTask(new FakeTask(quiet.descriptor(), kSelectReadable, [&] { ++served; })));
  const auto interrupted = [&] {
    EXPECT_EQ(setresuid(static_cast<uid_t>(-1), static_cast<uid_t>(-1), static_cast<uid_t>(-1)), 0);
    const LogCapture::Line line(kGXModLogTrace, "[select_tracker] select return -1, cause 4");
    return testing::Value(log_.Lines(), testing::Contains(line));
  };
  EXPECT_TRUE(Eventually(interrupted)) << "no select was interrupted";
  quiet.Send();
  EXPECT_TRUE(Reaches(served, 1));
  EXPECT_TRUE(reactor_->Stop());
}

// Without a descriptor below select's limit there is no wake-up socket. The reactor must still serve its tasks.
TEST_F(ReactorTest, WithoutADescriptorForItsSocketItGoesOn) {
  const SocketPair quiet, writable;
  {
    const gxtest::TakenDescriptors taken(FD_SETSIZE);
    ASSERT_TRUE(reactor_->Run(1));
    reactor_->AddTask(CTCPTask(new FakeTask(quiet.descriptor(), kSelectReadable)));
    for (int i = 0; i < 10; ++i) {
      Counter done{0};
      reactor_->AddTask(CTCPTask(new FakeTask(writable.descriptor(), kSelectWritable, [&] { ++done; })));
      EXPECT_TRUE(Reaches(done, 1));
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
