#include "reactor/select_tracker.h"

#include <netinet/in.h>
#include <poll.h>

#include "base/scoped_descriptor.h"
#include "reactor/udp_loopback.h"
#include "reactor_support.h"
#include "support/io.h"

namespace {

using gxbase::ScopedDescriptor;

class SelectTrackerTest : public testing::Test {
 protected:
  SelectTrackerTest() { EXPECT_TRUE(tracker_.Start(0)); }

  // Adds a task that waits for `op` and counts in gone_ when it is destroyed.
  CRefObj<FakeTask> Add(int descriptor, SelectOp op) {
    const CRefObj<FakeTask> task = new FakeTask(descriptor, op, kNothing, [this] { ++gone_; });
    EXPECT_TRUE(tracker_.AddTask(CTCPTask(task.get())));
    return task;
  }

  // Runs passes up to the next ready task and returns its descriptor; -1: the tracker has stopped.
  int Next() {
    CTCPTask task;
    while (!task) {
      if (!tracker_.GetComeleted(task)) return -1;
    }
    op_ = task.selectop();
    return task.socket();
  }

  // Runs one pass. True when no task was ready and the tracker is still running.
  bool PassWithoutTask() {
    CTCPTask task;
    return tracker_.GetComeleted(task) && !task;
  }

  // True when a timer fires after few passes and no task was ready before.
  bool Sleeps() {
    bool fired = false;
    const CRefObj<ITask> timer = new FakeTimer([&] { fired = true; });
    tracker_.SetTimer(timer.get(), 20, false);  // again and again, because the pass that it fires in goes on
    int passes = 0;
    while (!fired && PassWithoutTask()) ++passes;
    tracker_.KillTimer(timer.get());
    return fired && passes <= 10;
  }

  int gone_ = 0;
  SelectOp op_ = kSelectNone;  // of the last ready task
  tcp_select_tracker tracker_;
};

// Without sockets the tracker sleeps until a timer is due. After a stop no timer fires.
TEST_F(SelectTrackerTest, AnIdleTrackerSleeps) {
  const SocketPair quiet;
  Add(quiet.descriptor(), kSelectReadable)->timed_out = true;
  EXPECT_EQ(Next(), quiet.descriptor());
  EXPECT_TRUE(Sleeps());
  const CRefObj<ITask> never = new FakeTimer([] { ADD_FAILURE() << "killed, or set after the stop"; });
  tracker_.SetTimer(never.get(), 0, false);
  EXPECT_TRUE(tracker_.KillTimer(never.get()));
  const auto stop = [&] {
    tracker_.Shutdown();
    tracker_.SetTimer(never.get(), 0, true);
  };
  tracker_.SetTimer(new FakeTimer(stop), 0, true);
  EXPECT_EQ(Next(), -1);
}

// A task's limit may become nearer while it waits: a stream tells the limit of its read first, then that of its
// write.
TEST_F(SelectTrackerTest, ALimitThatComesNearerWhileATaskWaitsEndsThePass) {
  const SocketPair quiet, other;
  const auto task = Add(quiet.descriptor(), kSelectWritable);
  quiet.MakeWritable(false);
  task->left_ms = 3'600'000;
  other.Send();
  Add(other.descriptor(), kSelectReadable);
  EXPECT_EQ(Next(), other.descriptor());
  task->left_ms = 0;
  EXPECT_TRUE(PassWithoutTask());
}

// Shutdown drops the tasks that were waiting when a pass threw.
TEST_F(SelectTrackerTest, AnExceptionInAPassKeepsNobodyFromTheStop) {
  const SocketPair quiet, other;
  Add(quiet.descriptor(), kSelectReadable);
  other.Send();
  Add(other.descriptor(), kSelectReadable);
  EXPECT_EQ(Next(), other.descriptor());
  Add(-1, kSelectReadable)->asked = [] { throw std::runtime_error("accident"); };
  EXPECT_THROW(PassWithoutTask(), std::runtime_error);
  tracker_.Shutdown();
  EXPECT_EQ(gone_, 3);
}

// A change between collecting the tasks and opening the wake-up socket can wake nobody, so the tracker must
// look for it. The test makes the change in the destructor of a task that is dropped at that moment.
TEST_F(SelectTrackerTest, AChangeBeforeTheWakeUpSocketOpensIsNotMissed) {
  const SocketPair quiet, writable;
  const auto change_while_opening = [&](const Action& change) {
    Add(quiet.descriptor(), kSelectReadable);
    const CRefObj<FakeTask> dropped = new FakeTask(quiet.descriptor(), kSelectReadable, kNothing, change);
    dropped->write_interest = 2;
    tracker_.AddTask(CTCPTask(dropped.get()));
  };

  // The task that the first change adds makes a second one, which finds the socket open, as does one in a later
  // pass.
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

  // So many changes fill the pass. Its wait is short, because the last task is not in it.
  tracker_.Shutdown();
  EXPECT_TRUE(tracker_.Start(0));
  change_while_opening([&] {
    for (int more = 0; more < 1100; ++more) Add(quiet.descriptor(), kSelectReadable);
    Add(writable.descriptor(), kSelectWritable);
  });
  EXPECT_EQ(Next(), writable.descriptor());

  tracker_.Shutdown();
  EXPECT_TRUE(tracker_.Start(0));
  change_while_opening([&] { tracker_.Shutdown(); });
  EXPECT_EQ(Next(), -1);
}

// Beside many waiting tasks, epoll tells select where to look.
class CrowdTest : public SelectTrackerTest {
 protected:
  CrowdTest() { Wait(); }

  void Wait() {
    for (const SocketPair& each : crowd_) Add(each.descriptor(), kSelectReadable);
  }

  // The number of descriptors that epoll knows. A started program must not inherit epoll's own one.
  static int KnownToEpoll() {
    int known = 0;
    for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
      std::ifstream info("/proc/self/fdinfo/" + std::to_string(descriptor));
      for (std::string line; std::getline(info, line);) {
        if (!line.starts_with("tfd:")) continue;
        EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
        ++known;
      }
    }
    return known;
  }

  std::vector<SocketPair> crowd_{70};
};

// select reports urgent data as an exceptional condition.
TEST_F(CrowdTest, AnExceptionalConditionIsAnError) {
  const ScopedDescriptor listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const ScopedDescriptor sender(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr address{};
  socklen_t length = sizeof address;
  EXPECT_EQ(listen(listener.get(), 1), 0);
  getsockname(listener.get(), &address, &length);
  EXPECT_EQ(connect(sender.get(), &address, length), 0);
  const ScopedDescriptor receiver(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  Add(receiver.get(), kSelectReadable);
  EXPECT_EQ(send(sender.get(), "!", 1, MSG_OOB), 1);
  EXPECT_EQ(Next(), receiver.get());
  EXPECT_EQ(op_, kSelectError);
}

// The old socket lives on in a copy, as in a child process, and still has news.
TEST_F(CrowdTest, ANumberMayStandForAnotherSocket) {
  const SocketPair old, other;
  const auto task = Add(old.copy(), kSelectReadable);
  EXPECT_TRUE(Sleeps());
  task->timed_out = true;
  EXPECT_EQ(Next(), old.copy());
  EXPECT_EQ(dup2(other.descriptor(), old.copy()), old.copy());
  Add(old.copy(), kSelectReadable);
  other.Send();
  EXPECT_EQ(Next(), old.copy());
  other.MakeReadable(false);
  Add(old.copy(), kSelectReadable);
  old.Send();
  EXPECT_TRUE(Sleeps());
  other.Send();
  EXPECT_EQ(Next(), old.copy());
}

TEST_F(CrowdTest, AHangUpAloneKeepsNobodyBusy) {
  const SocketPair ended;
  ended.MakeWritable(false);
  Add(ended.descriptor(), kSelectWritable);
  EXPECT_TRUE(Sleeps());
  EXPECT_EQ(shutdown(ended.descriptor(), SHUT_RDWR), 0);
  EXPECT_TRUE(Sleeps());
  crowd_[7].Send();
  EXPECT_EQ(Next(), crowd_[7].descriptor());
  ended.MakeWritable(true);
  EXPECT_EQ(Next(), ended.descriptor());
}

TEST_F(CrowdTest, ADescriptorThatWasClosedIsFound) {
  SocketPair first, second;
  const SocketPair writable;
  Add(first.copy(), kSelectReadable);
  EXPECT_TRUE(Sleeps());
  first.CloseCopy();
  EXPECT_TRUE(Sleeps());
  EXPECT_EQ(gone_, 1) << "when the time is up";

  // The repair opened a new wake-up socket. A change during a pass ends it.
  Add(second.copy(), kSelectReadable);
  bool change = false;
  Add(second.descriptor(), kSelectReadable)->asked = [&] {
    if (std::exchange(change, false)) Add(writable.descriptor(), kSelectWritable);
  };
  EXPECT_TRUE(Sleeps());
  second.CloseCopy();
  change = true;
  EXPECT_EQ(Next(), writable.descriptor());
  EXPECT_EQ(gone_, 3) << "after a change, and the served task has gone as well";
}

TEST_F(CrowdTest, EpollKnowsThemOnlyWhileManyWait) {
  const SocketPair quiet;  // waits all the time
  Add(quiet.descriptor(), kSelectReadable);
  EXPECT_TRUE(Sleeps());
  EXPECT_GT(KnownToEpoll(), 70);
  for (const SocketPair& each : crowd_) {
    each.Send();
    EXPECT_EQ(Next(), each.descriptor());
    each.MakeReadable(false);
  }
  EXPECT_TRUE(Sleeps());
  EXPECT_EQ(KnownToEpoll(), 0);
  Wait();
  quiet.Send();
  EXPECT_EQ(Next(), quiet.descriptor());
  EXPECT_GT(KnownToEpoll(), 70);
  tracker_.Shutdown();
  EXPECT_EQ(KnownToEpoll(), 0);
}

constexpr std::size_t kMostTasks = 1023;

// The model for the tracker, which keeps descriptor sets from pass to pass. This one keeps nothing and asks for
// each descriptor separately.
class PlainTracker {
 public:
  bool Start(unsigned long) { return true; }
  bool AddTask(const CTCPTask& task) {
    waiting_.push_back(task);
    return true;
  }
  bool GetComeleted(CTCPTask& out) {
    if (ready_.empty()) Pass();
    if (ready_.empty()) return true;
    out = ready_.front();
    ready_.pop_front();
    return true;
  }

 private:
  void Pass() {
    std::list<CTCPTask> readers, writers, late;
    for (std::size_t i = 0; i < kMostTasks && !waiting_.empty(); ++i) {
      const CTCPTask task = waiting_.front();
      waiting_.pop_front();
      if (task->timeout()) {
        late.push_back(task);
      } else if (task.type() == kWaitReadable || task.type() == kWaitWritable) {
        (task.type() == kWaitReadable ? readers : writers).push_back(task);
      }
    }
    readers.splice(readers.end(), writers);
    const auto is_good = [](const CTCPTask& task) { return State(task) != POLLNVAL; };
    const auto bad = std::stable_partition(readers.begin(), readers.end(), is_good);
    const bool only_drops = bad != readers.end();
    readers.erase(bad, readers.end());
    for (const CTCPTask& task : readers) (only_drops || State(task) == 0 ? waiting_ : ready_).push_back(task);
    ready_.splice(ready_.end(), late);
  }

  // A descriptor beyond select's limit is never ready.
  static short State(const CTCPTask& task) {
    const short event = task.type() == kWaitReadable ? POLLIN : POLLOUT;
    pollfd entry{IsSelectable(task.socket()) ? task.socket() : -1, event, 0};
    poll(&entry, 1, 0);
    return entry.revents;
  }

  std::list<CTCPTask> waiting_, ready_;
};

// Plays a random script and returns what the tasks see: when each is asked for its limit, is ready, and is
// destroyed.
template <class Tracker>
std::vector<std::string> Play(unsigned seed) {
  std::vector<std::string> story;
  bool ending = false;
  std::mt19937 random(seed);
  const auto one_in = [&random](unsigned count) { return random() % count == 0; };
  std::vector<SocketPair> sockets(12), crowd(seed % 4 == 0 ? 70 : 0);
  const SocketPair bell;  // always readable, so that no pass waits
  bell.Send();
  const ScopedDescriptor file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  Tracker tracker;
  EXPECT_TRUE(tracker.Start(0));
  int names = 0;
  std::vector<CRefObj<FakeTask>> tasks;  // whose time the script may end

  // Adds a task. Its destructor, maybe during a pass, adds another one that reads `successor`; -1: none.
  std::function<CRefObj<FakeTask>(int, int, int)> make = [&](int descriptor, int interest, int successor) {
    const std::string name = std::to_string(++names);
    const auto tell = [&, name](const char* what) {
      if (!ending) story.push_back(what + name);
    };
    const CRefObj<FakeTask> task = new FakeTask(
        descriptor, kSelectReadable, [tell] { tell("ready "); },
        [&, tell, successor] {
          tell("gone ");
          if (successor != -1 && !ending) make(successor, kWaitReadable, -1);
        });
    task->asked = [tell] { tell("asked "); };
    task->write_interest = interest;
    tracker.AddTask(CTCPTask(task.get()));
    return task;
  };
  const auto add = [&](int descriptor, int interest, int successor = -1) {
    tasks.push_back(make(descriptor, interest, successor));
  };

  for (int step = 0; step < 250; ++step) {
    SocketPair& some = sockets[random() % sockets.size()];
    const int interest = static_cast<int>(random() % 2);
    switch (random() % 14) {
      case 0:
        add(some.copy() != -1 ? some.copy() : some.descriptor(), interest, one_in(2) ? some.descriptor() : -1);
        break;
      case 1:
        // Select calls a file always ready, and epoll refuses it.
        add(one_in(3) ? file.get() : one_in(2) ? FD_SETSIZE + 1 : -1, one_in(5) ? 2 : interest);
        break;
      case 2:
        some.MakeReadable(one_in(2));
        break;
      case 3:
        some.MakeWritable(one_in(2));
        break;
      case 4:
        if (!tasks.empty()) tasks[random() % tasks.size()]->timed_out = true;
        break;
      case 5:
        if (one_in(5)) tasks.clear();  // the tracker holds the last references
        if (one_in(5)) {
          some.CloseCopy();
          // Beside many tasks, only a pass that does not wait is sure to see the closed one.
          add(-1, kWaitReadable);
          tasks.back()->timed_out = true;
        }
        break;
      case 6:
        if (one_in(2)) break;
        for (const SocketPair& each : crowd) {
          each.MakeReadable(false);
          add(each.descriptor(), kWaitReadable);
        }
        break;
      case 7:
        if (one_in(2)) break;
        for (const SocketPair& each : crowd) each.Send();
        break;
      case 8:  // with some seeds more tasks than a pass takes
        for (unsigned more = seed % 8 == 0 ? 200 : 0; more > 0; --more) add(some.descriptor(), interest);
        break;
      default:
        add(some.descriptor(), interest);
    }
    for (int more = !crowd.empty() && one_in(10) ? 100 : 1; more > 0; --more) {
      add(bell.descriptor(), kWaitReadable);
      CTCPTask ready;
      EXPECT_TRUE(tracker.GetComeleted(ready));
      story.push_back("step " + std::to_string(step));
      if (!ready) continue;
      ready->Done();
      story.push_back("for " + std::to_string(ready.selectop()));
    }
  }
  ending = true;
  return story;
}

TEST(SelectTrackerScriptTest, PassesLookAsIfTheSetsWereMadeAnew) {
  for (unsigned seed = 1; seed <= 60 && !HasFailure(); ++seed) {
    const auto story = Play<tcp_select_tracker>(seed), wanted = Play<PlainTracker>(seed);
    const auto [here, there] = std::mismatch(story.begin(), story.end(), wanted.begin(), wanted.end());
    EXPECT_TRUE(story == wanted) << "seed " << seed << ": \"" << (here != story.end() ? *here : "end")
                                 << "\" in place of \"" << (there != wanted.end() ? *there : "end") << '"';
  }
}

// Every program on this computer can send to its port.
TEST(UdpLoopbackTest, HearsNobodyButItself) {
  CUdpLoopback loopback;
  ASSERT_TRUE(loopback.Create());
  sockaddr_in own{};
  socklen_t length = sizeof own;
  ASSERT_EQ(getsockname(loopback.GetHandle(), reinterpret_cast<sockaddr*>(&own), &length), 0);
  const ScopedDescriptor stranger(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(sendto(stranger.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&own), length), 1);
  EXPECT_EQ(loopback.Write("own", 3), 3);
  EXPECT_TRUE(gxtest::WaitFor(loopback.GetHandle(), POLLIN));
  char got[8];
  EXPECT_EQ(loopback.Read(got, sizeof got), 3);
}

}  // namespace
