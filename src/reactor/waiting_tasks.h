// The socket tasks that wait, kept from pass to pass.
#ifndef GX_REACTOR_WAITING_TASKS_H
#define GX_REACTOR_WAITING_TASKS_H

#include <cstddef>
#include <cstdint>
#include <list>

#include "reactor/descriptor_set.h"
#include "reactor/epoll_set.h"
#include "reactor/tcp_task.h"

// The descriptors of one select: those to wait for, and after the call those that are ready or in error.
struct SelectSets {
  void Watch(int descriptor);  // for reading
  // Calls select; all ones means no time limit.
  int Select(unsigned int wait_ms);

  DescriptorSet read;
  DescriptorSet write;
  DescriptorSet failed;
  int highest = 0;
};

// Keeps the descriptor sets and the nearest time limit up to date as tasks come and go, so that a pass does not
// rebuild them. The order of service is that of a queue where every task that was not ready goes to the back:
// first tasks that were added while the last pass waited, then those that waited in it, then those added since.
// Within a pass readers come before writers.
//
// List entries are moved, never copied: a pass that had to allocate memory could lose tasks when memory runs
// out. Threads: one at a time.
template <class Task>
class waiting_tasks {
 public:
  bool empty() const { return readers_.tasks.empty() && writers_.tasks.empty(); }
  std::size_t size() const { return came_.size() + readers_.tasks.size() + writers_.tasks.size(); }

  // Starts a pass with the tasks added since the last one (`fresh`). Asks every task, in the order of service,
  // whether its time limit has passed, and moves those to the back of `late`. Drops a task whose event is
  // unknown.
  void Enter(std::list<Task> fresh, std::list<Task>& late);
  // Adds tasks during a pass. Only these are asked for their time limit.
  void EnterLast(std::list<Task> fresh, std::list<Task>& late);
  // Stores the tasks that were added while the pass waited; the next pass starts with them.
  void EndPass(std::list<Task> came);
  // Milliseconds until the next time limit; all ones when there is none.
  std::uint64_t TimeLeft() const;

  // The descriptors to wait for.
  SelectSets Sets() const;
  // True when so many tasks wait that AwaitNews costs less than to select among all.
  bool UseEpoll() { return epoll_.Fit(readers_.tasks.size() + writers_.tasks.size()); }
  // Waits for news of a descriptor in the sets, and removes those without. Leaves none when the time is up and
  // after an error.
  void AwaitNews(SelectSets& sets, int wake_up, unsigned int wait_ms);
  // Moves the tasks whose descriptors are ready or in error, according to the sets after select, to the back of
  // `ready`.
  void TakeReady(const SelectSets& sets, std::list<Task>& ready);
  // Drops the tasks whose descriptor is not open.
  void DropBad();
  // Removes and returns all tasks, in the order of service.
  std::list<Task> TakeAll();
  // The same for a stop: keeps no descriptor open either.
  std::list<Task> Close();

 private:
  // The tasks that wait for one kind of event.
  struct Waiters {
    std::list<Task> tasks;
    DescriptorSet descriptors;
    bool shared = false;  // several tasks may wait for one descriptor
  };

  void Sort(std::list<Task> fresh, std::list<Task>& readers, std::list<Task>& writers, std::list<Task>& late);
  bool TakeLate(std::list<Task>& late);  // true: at least one was late
  void Watch(Waiters& waiters, const Task& task);
  void WatchAnew();  // rebuilds sets and limit from all tasks
  static void TakeReady(Waiters& waiters, DescriptorSet ready, const DescriptorSet& failed,
                        std::list<Task>& out);
  template <class Condition>
  static void Take(Waiters& waiters, std::list<Task>& out, Condition condition);

  EpollSet epoll_;
  std::list<Task> came_;  // added during the last pass
  Waiters readers_;
  Waiters writers_;
  int highest_ = 0;                          // upper bound of the watched descriptors
  std::uint64_t deadline_ms_ = kNoDeadline;  // monotonic; lower bound of the time limits
  static constexpr std::uint64_t kNoDeadline = ~std::uint64_t{0};
};

extern template class waiting_tasks<CTCPTask>;

#endif  // GX_REACTOR_WAITING_TASKS_H
