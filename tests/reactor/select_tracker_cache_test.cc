// The tracker keeps descriptor sets from pass to pass. What it does has to look as if it made them anew each
// time.
#include <gtest/gtest.h>

#include <array>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "reactor/select_tracker.h"
#include "reactor_support.h"

namespace {

constexpr std::size_t kMostTasks = 1023;

using Log = std::vector<std::string>;

// Notes when it is asked for its time limit and when it goes.
class NotedTask final : public ITCPTask {
 public:
  NotedTask(int id, int descriptor, int interest, Log& log, Action gone)
      : ITCPTask(descriptor, kSelectReadable), name_(std::to_string(id)), log_(log), gone_(std::move(gone)) {
    write_interest = interest;
  }

  bool Done() override { return true; }
  bool timeout() override {
    log_.push_back("asked " + name_);
    return late;
  }
  unsigned long timeleft() override { return ~0UL; }
  const std::string& name() const { return name_; }

  bool late = false;

 private:
  ~NotedTask() override {
    log_.push_back("gone " + name_);
    if (gone_) gone_();
  }

  const std::string name_;
  Log& log_;
  const Action gone_;
};

NotedTask& Noted(const CTCPTask& task) { return dynamic_cast<NotedTask&>(*task.operator->()); }

// One pass after the other without any memory of the one before.
class PlainTracker {
 public:
  void AddTask(const CTCPTask& task) { waiting_.push_back(task); }

  void GetComeleted(CTCPTask& out) {
    if (ready_.empty()) Pass();
    if (ready_.empty()) return;
    out = ready_.front();
    ready_.pop_front();
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
      for (auto* waiters : {&readers, &writers}) DropBad(*waiters);
      read = write = failed = {};
    }
    Dispatch(readers, read, failed);
    Dispatch(writers, write, failed);
    ready_.splice(ready_.end(), late);
  }

  static void DropBad(std::list<CTCPTask>& waiters) {
    for (auto task = waiters.begin(); task != waiters.end();) {
      const bool bad = IsSelectable(task->socket()) && fcntl(task->socket(), F_GETFD) == -1;
      task = bad ? waiters.erase(task) : std::next(task);
    }
  }

  void Dispatch(const std::list<CTCPTask>& waiters, const DescriptorSet& ready, const DescriptorSet& failed) {
    for (const CTCPTask& task : waiters) {
      if (failed.Has(task.socket())) task.selectop() = kSelectError;
      (failed.Has(task.socket()) || ready.Has(task.socket()) ? ready_ : waiting_).push_back(task);
    }
  }

  std::list<CTCPTask> waiting_, ready_;
};

// Does the same to both trackers.
class Twins {
 public:
  Twins() { EXPECT_TRUE(tracker_.Start(0)); }
  ~Twins() { ending_ = true; }

  // With a successor that comes when the task goes, which may be in the middle of a pass.
  void Add(int descriptor, int interest, int successor = -1) {
    AddTo(tracker_, tasks_, log_, descriptor, interest, successor);
    AddTo(plain_, plain_tasks_, plain_log_, descriptor, interest, successor);
    ++ids_;
  }

  // Some task runs out of time.
  void MakeLate(std::size_t which) {
    if (tasks_.empty()) return;
    tasks_[which % tasks_.size()]->late = plain_tasks_[which % tasks_.size()]->late = true;
  }
  // From here on only the trackers hold their tasks.
  void LetGo() {
    tasks_.clear();
    plain_tasks_.clear();
  }

  // One pass of each, or the next ready task. False: they differ.
  bool Step() {
    CTCPTask task, plain_task;
    EXPECT_TRUE(tracker_.GetComeleted(task));
    plain_.GetComeleted(plain_task);
    Note(task, log_);
    Note(plain_task, plain_log_);
    task = plain_task = {};
    EXPECT_EQ(log_, plain_log_);
    const bool same = log_ == plain_log_;
    log_ = plain_log_ = {};
    return same;
  }

 private:
  using Tasks = std::vector<CRefObj<NotedTask>>;

  template <class Tracker>
  void AddTo(Tracker& tracker, Tasks& tasks, Log& log, int descriptor, int interest, int successor) {
    Action gone;
    if (successor != -1) {
      gone = [this, &tracker, &log, id = -ids_, successor] {
        if (ending_) return;
        tracker.AddTask(CTCPTask(new NotedTask(id, successor, kWaitReadable, log, {})));
      };
    }
    tasks.emplace_back(new NotedTask(ids_, descriptor, interest, log, std::move(gone)));
    tracker.AddTask(CTCPTask(tasks.back().get()));
  }

  static void Note(const CTCPTask& task, Log& log) {
    if (task) log.push_back("ready " + Noted(task).name() + " for " + std::to_string(task.selectop()));
  }

  int ids_ = 1;
  bool ending_ = false;
  Log log_, plain_log_;
  tcp_select_tracker tracker_;
  PlainTracker plain_;
  Tasks tasks_, plain_tasks_;
};

// Two connected sockets, whose readiness the test chooses, and one more descriptor for the first.
class Sockets {
 public:
  Sockets() {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends_.data()), 0);
    copy_ = fcntl(ends_[0], F_DUPFD_CLOEXEC, 700);  // numbers that nobody reuses
  }
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;
  ~Sockets() {
    CloseCopy();
    for (const int end : ends_) close(end);
  }

  int descriptor() const { return ends_[0]; }
  int copy() const { return copy_ != -1 ? copy_ : ends_[0]; }
  void CloseCopy() {
    if (copy_ != -1) close(copy_);
    copy_ = -1;
  }
  void MakeReadable(bool yes) const { yes ? Fill(ends_[1]) : Empty(ends_[0]); }
  void MakeWritable(bool yes) const { yes ? Empty(ends_[1]) : Fill(ends_[0]); }

 private:
  static void Fill(int end) {
    while (send(end, Block(), sizeof Block(), 0) > 0) {
    }
  }
  static void Empty(int end) {
    while (recv(end, Block(), sizeof Block(), 0) > 0) {
    }
  }
  static char (&Block())[65536] {
    static char block[65536];
    return block;
  }

  std::array<int, 2> ends_{-1, -1};
  int copy_ = -1;
};

TEST(SelectTrackerCacheTest, PassesLookAsIfTheSetsWereMadeAnew) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto one_in = [&random](unsigned count) { return random() % count == 0; };
    std::vector<Sockets> sockets(12);
    const SocketPair bell;  // always readable, so that no pass waits
    bell.Send();
    Twins twins;
    for (int step = 0; step < 250; ++step) {
      Sockets& some = sockets[random() % sockets.size()];
      const int interest = static_cast<int>(random() % 2);
      switch (random() % 10) {
        case 0:
        case 1:
        case 2:
          twins.Add(some.descriptor(), interest);
          break;
        case 3:
          twins.Add(some.copy(), interest, one_in(2) ? some.descriptor() : -1);
          break;
        case 4:
          twins.Add(one_in(2) ? FD_SETSIZE + 1 : -1, one_in(5) ? 2 : interest);
          break;
        case 5:
          some.MakeReadable(one_in(2));
          break;
        case 6:
          some.MakeWritable(one_in(2));
          break;
        case 7:
          twins.MakeLate(random());
          break;
        case 8:
          if (one_in(5)) twins.LetGo();
          if (one_in(5)) some.CloseCopy();
          break;
        default:  // in some runs there is a crowd
          for (unsigned more = seed % 4 == 0 ? 200 : 0; more > 0; --more)
            twins.Add(some.descriptor(), interest);
      }
      twins.Add(bell.descriptor(), kWaitReadable);
      if (!twins.Step()) return;
    }
  }
}

}  // namespace
