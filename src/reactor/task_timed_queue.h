// The timers that wait to fire, soonest first.
#ifndef GX_REACTOR_TASK_TIMED_QUEUE_H
#define GX_REACTOR_TASK_TIMED_QUEUE_H

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "base/clock.h"
#include "base/mutex_lock.h"
#include "reactor/timer.h"

// Threads:   any; only the select thread pops.
// Ownership: one reference per armed timer. It is dropped after mutex_ has been released, so the destructor of
//            a task may call back into this queue.
// Time:      whole milliseconds of the monotonic clock, never the time of day.
class task_timed_queue {
 public:
  using Clock = std::uint64_t (*)();
  // What next_pop_time returns when there is no timer.
  static constexpr unsigned int kNoTimer = 0xFFFFFFFF;

  explicit task_timed_queue(Clock now = &gettickcount) : now_(now) {}
  ~task_timed_queue() { clean(); }

  // Arms a timer due `interval` ms from now. A task armed twice has two timers. `once`: fires once; otherwise
  // it is armed anew whenever it fires. Of two timers due at the same time the one armed first fires first.
  void push(CRefObj<ITask> task, unsigned long long interval, bool once);
  // Cancels every timer of that task.
  void erase(CRefObj<ITask> task);
  // Puts the task of the soonest timer that is due into `out`. False: nothing is due and `out` is as it was.
  bool pop(CRefObj<ITask>& out);
  // Milliseconds until the next timer; 0 when it is overdue. A cancelled timer counts until a pop meets it.
  unsigned int next_pop_time();
  // Cancels every timer.
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
    Index::iterator entry;  // its own in the index, while it has one
  };

  // Puts the soonest timer to the front of a standard heap.
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
