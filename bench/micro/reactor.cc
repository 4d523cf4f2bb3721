// The reactor's queues and one pass over its waiters.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "measure.h"
#include "object/creference.h"
#include "reactor/select_tracker.h"
#include "reactor/sem_queue.h"
#include "reactor/task_timed_queue.h"

namespace {

using gxbench::MeasureAt;

class Task final : public ITCPTask {
 public:
  explicit Task(int descriptor) : ITCPTask(descriptor, kSelectReadable) {}
  bool Done() override { return true; }
  bool timeout() override { return false; }
  unsigned long timeleft() override { return ~0UL; }

 private:
  ~Task() override = default;
};

// One task is added at the back of a queue with others, and one is taken from the front.
void SemQueue(benchmark::State& state) {
  sem_queue<CTCPTask> queue;
  queue.open(0);
  CTCPTask task(new Task(-1));
  for (auto i = state.range(0); i > 0; --i) queue.push(task, true);
  MeasureAt(state, "sem_queue", [&] {
    queue.push(task, true);
    queue.peek(task);
  });
}
BENCHMARK(SemQueue)->Arg(1)->Arg(100)->Arg(10'000);

class Timer final : public ITask, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  void MarkedForDeletion() override {}
  void Done() override {}

 private:
  ~Timer() override = default;
};

// A timer is armed and fires, in a queue with others that are due later.
void TimedQueue(benchmark::State& state) {
  task_timed_queue queue([] { return std::uint64_t{1'000'000}; });
  std::vector<CRefObj<ITask>> others;
  for (auto i = state.range(0); i > 0; --i) {
    others.emplace_back(new Timer);
    queue.push(others.back(), static_cast<unsigned long long>(i), true);
  }
  const CRefObj<ITask> soonest = new Timer;
  CRefObj<ITask> fired;
  MeasureAt(state, "timed_queue", [&] {
    queue.push(soonest, 0, true);
    queue.pop(fired);
  });
  if (fired != soonest) state.SkipWithError("another timer fired");
}
BENCHMARK(TimedQueue)->Arg(1)->Arg(100)->Arg(10'000);

// The two ends of a pipe.
class Pipe {
 public:
  Pipe() : good_(pipe2(ends_.data(), O_CLOEXEC) == 0) {}
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    for (const int end : ends_) close(end);
  }
  int descriptor() const { return ends_[0]; }
  bool MakeReadable() const { return good_ && write(ends_[1], "x", 1) == 1; }

 private:
  std::array<int, 2> ends_{-1, -1};
  const bool good_;
};

// Duplicates of one pipe's descriptor: many waiters then need only one descriptor each.
class Copies {
 public:
  Copies(int descriptor, std::int64_t count) {
    for (; count > 0; --count) copies_.push_back(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  }
  Copies(const Copies&) = delete;
  Copies& operator=(const Copies&) = delete;
  ~Copies() {
    for (const int copy : copies_) close(copy);
  }
  const std::vector<int>& all() const { return copies_; }

 private:
  std::vector<int> copies_;
};

// A task with a ready descriptor is added and returned, while others wait.
void TrackerPass(benchmark::State& state) {
  const Pipe quiet, ready;
  if (!ready.MakeReadable()) return state.SkipWithError("no pipe");
  const Copies others(quiet.descriptor(), state.range(0) - 1);
  tcp_select_tracker tracker;
  tracker.Start(0);
  for (const int descriptor : others.all()) tracker.AddTask(CTCPTask(new Task(descriptor)));
  const CTCPTask task(new Task(ready.descriptor()));
  MeasureAt(state, "tracker_pass", [&] {
    tracker.AddTask(task);
    CTCPTask out;
    while (!out && tracker.GetComeleted(out)) {
    }
  });
  tracker.Shutdown();
}
BENCHMARK(TrackerPass)->Arg(1)->Arg(100)->Arg(400)->Arg(900);

}  // namespace
