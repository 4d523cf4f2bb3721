#include "reactor/select_tracker.h"

#include <netinet/in.h>

#include "base/scoped_descriptor.h"
#include "reactor/udp_loopback.h"
#include "reactor_support.h"

namespace {

class SelectTrackerTest : public testing::Test {
 protected:
  SelectTrackerTest() { EXPECT_TRUE(tracker_.Start(0)); }

  // Adds a task that waits as `op` says; it counts in gone_ when it has been destroyed.
  CRefObj<FakeTask> Add(int descriptor, SelectOp op) {
    const CRefObj<FakeTask> task = new FakeTask(descriptor, op, kNothing, [this] { ++gone_; });
    EXPECT_TRUE(tracker_.AddTask(CTCPTask(task.get())));
    return task;
  }

  // The descriptor of the next ready task, after any number of passes; -1 when the tracker has stopped.
  int Next(SelectOp* op = nullptr) {
    CTCPTask task;
    while (!task) {
      if (!tracker_.GetComeleted(task)) return -1;
    }
    if (op != nullptr) *op = task.selectop();
    return task.socket();
  }

  // One pass. True: it made no task ready, and the tracker goes on.
  bool PassWithoutTask() {
    CTCPTask task;
    return tracker_.GetComeleted(task) && !task;
  }

  int gone_ = 0;
  tcp_select_tracker tracker_;
};

TEST_F(SelectTrackerTest, ATaskWhoseTimeHasPassedWaitsForNobody) {
  const SocketPair quiet, other;
  for (const bool with_waiter : {false, true}) {
    if (with_waiter) Add(other.descriptor(), kSelectReadable);
    const CRefObj<FakeTask> late = new FakeTask(quiet.descriptor(), kSelectReadable);
    late->timed_out = true;
    tracker_.AddTask(CTCPTask(late.get()));
    EXPECT_EQ(Next(), quiet.descriptor());
  }
}

// Without a socket to wait for it sleeps until the timer is due.
TEST_F(SelectTrackerTest, AnIdleTrackerSleeps) {
  const CRefObj<ITask> killed = new FakeTimer([] { ADD_FAILURE() << "it was killed"; });
  tracker_.SetTimer(killed.get(), 0, false);
  EXPECT_TRUE(tracker_.KillTimer(killed.get()));
  tracker_.SetTimer(new FakeTimer([&] { tracker_.Shutdown(); }), 50, true);
  int passes = 0;
  while (PassWithoutTask()) ++passes;
  EXPECT_LE(passes, 10);
}

// A stream whose read has a limit tells of that one; when the read is done, a nearer one of its write shows.
TEST_F(SelectTrackerTest, ALimitThatComesNearerWhileATaskWaitsEndsThePass) {
  const SocketPair quiet, other;
  const auto task = Add(quiet.descriptor(), kSelectWritable);
  quiet.MakeWritable(false);
  task->left_ms = 3'600'000;
  const auto serve_other = [&] {
    other.Send();
    Add(other.descriptor(), kSelectReadable);
    EXPECT_EQ(Next(), other.descriptor());
  };
  serve_other();
  task->left_ms = 0;
  bool rescued = false;
  tracker_.SetTimer(new FakeTimer([&] { rescued = true; }), 10'000, true);
  EXPECT_TRUE(PassWithoutTask());
  serve_other();
  EXPECT_FALSE(rescued);
}

// A stop that comes after it drops everybody who waited in that pass.
TEST_F(SelectTrackerTest, AnExceptionInAPassKeepsNobodyFromTheStop) {
  class Faulty final : public ITCPTask {
   public:
    Faulty() : ITCPTask(-1, kSelectReadable) {}
    bool Done() override { return true; }
    bool timeout() override { throw std::runtime_error("accident"); }
    unsigned long timeleft() override { return ~0UL; }
  };
  const SocketPair quiet, other;
  Add(quiet.descriptor(), kSelectReadable);
  other.Send();
  Add(other.descriptor(), kSelectReadable);
  EXPECT_EQ(Next(), other.descriptor());
  tracker_.AddTask(CTCPTask(new Faulty));
  EXPECT_THROW(PassWithoutTask(), std::runtime_error);
  tracker_.Shutdown();
  EXPECT_EQ(gone_, 2);
}

// As select tells it of a socket with urgent data.
TEST_F(SelectTrackerTest, AnExceptionalConditionIsAnError) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(listen(listener, 1), 0);
  getsockname(listener, &address, &length);
  EXPECT_EQ(connect(sender, &address, length), 0);
  const int receiver = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  Add(receiver, kSelectReadable);
  EXPECT_EQ(send(sender, "!", 1, MSG_OOB), 1);
  SelectOp op = kSelectNone;
  EXPECT_EQ(Next(&op), receiver);
  EXPECT_EQ(op, kSelectError);
  for (const int descriptor : {listener, sender, receiver}) close(descriptor);
}

// A change that comes after the tasks have been collected and before the wake-up socket is open finds nothing
// that it could wake. A dropped task goes at that very moment; its destructor makes the change.
TEST_F(SelectTrackerTest, AChangeBeforeTheWakeUpSocketOpensIsNotMissed) {
  const SocketPair quiet, writable;
  const auto change_while_opening = [&](const Action& change) {
    Add(quiet.descriptor(), kSelectReadable);
    const CRefObj<FakeTask> dropped = new FakeTask(quiet.descriptor(), kSelectReadable, kNothing, change);
    dropped->write_interest = 2;
    tracker_.AddTask(CTCPTask(dropped.get()));
  };
  change_while_opening([&] { Add(writable.descriptor(), kSelectWritable); });
  EXPECT_EQ(Next(), writable.descriptor());

  // Behind it comes another change, which finds the socket open; so does one in a later pass.
  tracker_.Shutdown();
  EXPECT_TRUE(tracker_.Start(0));
  CRefObj<FakeTask> first;
  bool open_now = false;
  change_while_opening([&] {
    first = new FakeTask(quiet.descriptor(), kSelectReadable);
    first->asked = [&] {
      if (std::exchange(open_now, false)) Add(writable.descriptor(), kSelectWritable);
    };
    tracker_.AddTask(CTCPTask(first.get()));
  });
  for (int pass = 0; pass < 2; ++pass) {
    open_now = true;
    EXPECT_EQ(Next(), writable.descriptor());
  }

  tracker_.Shutdown();
  EXPECT_TRUE(tracker_.Start(0));
  change_while_opening([&] { tracker_.Shutdown(); });
  EXPECT_EQ(Next(), -1);
}

// Everybody on this computer can send to its port.
TEST(UdpLoopbackTest, HearsNobodyButItself) {
  CUdpLoopback loopback;
  ASSERT_TRUE(loopback.Create());
  sockaddr_in own{};
  socklen_t length = sizeof own;
  ASSERT_EQ(getsockname(loopback.GetHandle(), reinterpret_cast<sockaddr*>(&own), &length), 0);
  const gxbase::ScopedDescriptor stranger(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(sendto(stranger.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&own), length), 1);
  EXPECT_EQ(loopback.Write("own", 3), 3);
  char got[8];
  EXPECT_EQ(loopback.Read(got, sizeof got), 3);
}

}  // namespace
