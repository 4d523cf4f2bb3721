// The armed timers, soonest first.
#ifndef GX_REACTOR_TASK_TIMED_QUEUE_H
#define GX_REACTOR_TASK_TIMED_QUEUE_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "base/clock.h"
#include "base/mutex_lock.h"
#include "reactor/timer.h"

// Threads:   any; only the select thread calls pop.
// Ownership: one reference per armed timer, dropped after mutex_ is released, so a task's destructor may call
//            back into this queue.
// Time:      whole milliseconds of the monotonic clock.
class task_timed_queue {
 public:
  using Clock = std::uint64_t (*)();
  // What next_pop_time returns when there is no timer.
  static constexpr unsigned int kNoTimer = 0xFFFFFFFF;

  explicit task_timed_queue(Clock now = &gettickcount) : now_(now) {}
  ~task_timed_queue() { clean(); }

  // Arms a timer that is due in `interval` ms. A task armed twice has two timers. With `once` it fires once;
  // otherwise it is armed again each time it fires. Of two timers due at the same time, the one armed first
  // fires first.
  void push(CRefObj<ITask> task, unsigned long long interval, bool once);
  // Cancels all timers of that task.
  void erase(CRefObj<ITask> task);
  // Moves the task of the soonest due timer into `out`. Returns false, with `out` unchanged, when no timer is
  // due.
  bool pop(CRefObj<ITask>& out);
  // Milliseconds until the next timer; 0 when it is overdue. A cancelled timer counts until pop removes it.
  unsigned int next_pop_time();
  // Cancels all timers.
  void clean();

 private:
  struct timer_item;
  using ItemPtr = std::shared_ptr<timer_item>;
  using Index = std::multimap<ITask*, ItemPtr>;

  struct timer_item {
    std::uint64_t sequence;
    std::uint64_t interval;
    std::uint64_t due_time;
    bool once;
    bool cancelled;
    CRefObj<ITask> task;    // empty once cancelled
    Index::iterator entry;  // the timer's own entry in the index, until it has fired
  };

  // Orders a standard heap so that the soonest timer is at the front.
  struct timer_item_less {
    bool operator()(const ItemPtr& a, const ItemPtr& b) const {
      return a->due_time != b->due_time ? a->due_time > b->due_time : a->sequence > b->sequence;
    }
  };

  void Arm(ItemPtr item) REQUIRES(mutex_);
  ItemPtr TakeFront() REQUIRES(mutex_);

  const Clock now_;
  CStdMutex mutex_;
  std::vector<ItemPtr> heap_ GUARDED_BY(mutex_);  // cancelled timers stay until they reach the front
  Index index_ GUARDED_BY(mutex_);
  std::uint64_t next_sequence_ GUARDED_BY(mutex_) = 0;
};

#endif  // GX_REACTOR_TASK_TIMED_QUEUE_H
