// The socket tasks that wait, from pass to pass.
#ifndef GX_REACTOR_WAITING_TASKS_H
#define GX_REACTOR_WAITING_TASKS_H

#include <cstddef>
#include <cstdint>
#include <list>

#include "reactor/descriptor_set.h"
#include "reactor/tcp_task.h"

// The descriptors of one select: those to wait for, and afterwards those that are ready or in error.
struct SelectSets {
  void Watch(int descriptor);  // for reading
  // As select; all ones: without a limit.
  int Select(unsigned int wait_ms);

  DescriptorSet read;
  DescriptorSet write;
  DescriptorSet failed;
  int highest = 0;
};

// Keeps the descriptor sets and the nearest time limit up to date as tasks come and go, so that a pass does not
// make them anew for everybody. The order of service is that of one queue to whose back everybody returns who
// was not ready: tasks that came while a pass waited, those that waited in it, those that have come since; and
// in each pass readers before writers.
//
// The entries of the queues themselves travel through here: a pass that needed memory of its own could lose
// everybody's tasks for want of it. Threads: one at a time.
template <class Task>
class waiting_tasks {
 public:
  bool empty() const { return readers_.tasks.empty() && writers_.tasks.empty(); }
  std::size_t size() const { return came_.size() + readers_.tasks.size() + writers_.tasks.size(); }

  // Begins a pass: `fresh` have come since the last one. Everybody is asked, in the order of service, whether
  // the time limit has passed, and goes to the back of `late` then. A task that waits for nothing known is
  // dropped.
  void Enter(std::list<Task> fresh, std::list<Task>& late);
  // In the middle of a pass: nobody but `fresh` is asked.
  void EnterLast(std::list<Task> fresh, std::list<Task>& late);
  // `came` while the pass waited; the next one enters them.
  void EndPass(std::list<Task> came);
  // Milliseconds until a time limit may have passed; all ones: there is none.
  std::uint64_t TimeLeft() const;

  // What to wait for.
  SelectSets Sets() const;
  // Moves the tasks that are ready or in error, by the sets after select, to the back of `ready`.
  void TakeReady(const SelectSets& sets, std::list<Task>& ready);
  // Drops the tasks whose descriptor is not open.
  void DropBad();
  // All of them, in the order of service; nobody waits here any more.
  std::list<Task> TakeAll();

 private:
  // Those that wait for the same thing.
  struct Waiters {
    std::list<Task> tasks;
    DescriptorSet descriptors;
    bool shared = false;  // perhaps several wait for one of them
  };

  void Sort(std::list<Task> fresh, std::list<Task>& readers, std::list<Task>& writers, std::list<Task>& late);
  bool TakeLate(std::list<Task>& late);  // true: there were some
  void Watch(Waiters& waiters, const Task& task);
  void WatchAnew();  // everybody
  static void TakeReady(Waiters& waiters, DescriptorSet ready, const DescriptorSet& failed,
                        std::list<Task>& out);
  template <class Condition>
  static void Take(Waiters& waiters, std::list<Task>& out, Condition condition);

  std::list<Task> came_;  // during the last pass
  Waiters readers_;
  Waiters writers_;
  int highest_ = 0;                          // no watched descriptor is above it
  std::uint64_t deadline_ms_ = kNoDeadline;  // monotonic; no time limit is before it
  static constexpr std::uint64_t kNoDeadline = ~std::uint64_t{0};
};

extern template class waiting_tasks<CTCPTask>;

#endif  // GX_REACTOR_WAITING_TASKS_H
