// The tracker keeps descriptor sets from pass to pass. What its tasks see must be what they would see if it
// made the sets anew each time.
#include "reactor/select_tracker.h"
#include "reactor_support.h"

namespace {

constexpr std::size_t kMostTasks = 1023;

// One pass after the other without any memory of the one before.
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
    DescriptorSet read, write, failed;
    for (std::size_t i = 0; i < kMostTasks && !waiting_.empty(); ++i) {
      const CTCPTask task = waiting_.front();
      waiting_.pop_front();
      const bool reads = task.type() == kWaitReadable;
      if (task->timeout()) {
        late.push_back(task);
      } else if (reads || task.type() == kWaitWritable) {
        (reads ? readers : writers).push_back(task);
        (reads ? read : write).Add(task.socket());
        failed.Add(task.socket());
      }
    }
    timeval at_once{};
    if (select(FD_SETSIZE, read.get(), write.get(), failed.get(), &at_once) < 0) {
      for (auto* waiters : {&readers, &writers}) {
        waiters->erase(std::stable_partition(waiters->begin(), waiters->end(), IsGood), waiters->end());
      }
      read = write = failed = {};
    }
    Dispatch(readers, read, failed);
    Dispatch(writers, write, failed);
    ready_.splice(ready_.end(), late);
  }

  static bool IsGood(const CTCPTask& task) {
    return !IsSelectable(task.socket()) || fcntl(task.socket(), F_GETFD) != -1;
  }

  void Dispatch(const std::list<CTCPTask>& waiters, const DescriptorSet& ready, const DescriptorSet& failed) {
    for (const CTCPTask& task : waiters) {
      if (failed.Has(task.socket())) task.selectop() = kSelectError;
      (failed.Has(task.socket()) || ready.Has(task.socket()) ? ready_ : waiting_).push_back(task);
    }
  }

  std::list<CTCPTask> waiting_, ready_;
};

// What the tasks of a random script see: when each is asked for its time limit, is ready, and goes.
template <class Tracker>
std::vector<std::string> Play(unsigned seed) {
  std::vector<std::string> story;
  bool ending = false;
  std::mt19937 random(seed);
  const auto one_in = [&random](unsigned count) { return random() % count == 0; };
  std::vector<SocketPair> sockets(12);
  const SocketPair bell;  // always readable, so that no pass waits
  bell.Send();
  Tracker tracker;
  EXPECT_TRUE(tracker.Start(0));
  int names = 0;
  std::vector<CRefObj<FakeTask>> tasks;  // so that they may run out of time

  // A task with a successor that comes when it goes, which may be in the middle of a pass; -1: without.
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
    switch (random() % 10) {
      case 0:
      case 1:
      case 2:
        add(some.descriptor(), interest);
        break;
      case 3:
        add(some.copy() != -1 ? some.copy() : some.descriptor(), interest, one_in(2) ? some.descriptor() : -1);
        break;
      case 4:
        add(one_in(2) ? FD_SETSIZE + 1 : -1, one_in(5) ? 2 : interest);
        break;
      case 5:
        some.MakeReadable(one_in(2));
        break;
      case 6:
        some.MakeWritable(one_in(2));
        break;
      case 7:
        if (!tasks.empty()) tasks[random() % tasks.size()]->timed_out = true;
        break;
      case 8:
        if (one_in(5)) tasks.clear();  // only the tracker holds them now
        if (one_in(5)) some.CloseCopy();
        break;
      default:  // in some runs there is a crowd
        for (unsigned more = seed % 8 == 0 ? 200 : 0; more > 0; --more) add(some.descriptor(), interest);
    }
    add(bell.descriptor(), kWaitReadable);
    CTCPTask ready;
    EXPECT_TRUE(tracker.GetComeleted(ready));
    story.push_back("step " + std::to_string(step));
    if (!ready) continue;
    ready->Done();
    story.push_back("for " + std::to_string(ready.selectop()));
  }
  ending = true;
  return story;
}

TEST(SelectTrackerCacheTest, PassesLookAsIfTheSetsWereMadeAnew) {
  for (unsigned seed = 1; seed <= 60 && !HasFailure(); ++seed) {
    const auto story = Play<tcp_select_tracker>(seed), wanted = Play<PlainTracker>(seed);
    const auto [here, there] = std::mismatch(story.begin(), story.end(), wanted.begin(), wanted.end());
    EXPECT_TRUE(story == wanted) << "seed " << seed << ": \"" << (here != story.end() ? *here : "end")
                                 << "\" in place of \"" << (there != wanted.end() ? *there : "end") << '"';
  }
}

}  // namespace
