// The engine of the reactor: one pass of waiting for descriptors, timers and new work.
#ifndef GX_REACTOR_SELECT_TRACKER_H
#define GX_REACTOR_SELECT_TRACKER_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/event.h"
#include "base/mutex_lock.h"
#include "reactor/sem_queue.h"
#include "reactor/task_timed_queue.h"
#include "reactor/tcp_task.h"
#include "reactor/timer.h"
#include "reactor/udp_loopback.h"
#include "reactor/waiting_tasks.h"

// States:    stopped (at first); running, from Start to Shutdown. A stopped tracker refuses tasks; it takes
//            timers, but the next Start drops them.
// Threads:   SetTimer, KillTimer and AddTask of the derived class are anybody's. GetComeleted is for one thread
//            at a time, the select thread. Start and Shutdown are the owner's; Start only while
//            nobody is in GetComeleted.
// Ownership: one reference per waiting task and per timer. No lock is held while a pass waits or calls a task.
template <class Task>
class select_tracker : public ITimer {
 public:
  // Throws std::bad_alloc when the system has no wake event to give.
  select_tracker();
  select_tracker(const select_tracker&) = delete;
  select_tracker& operator=(const select_tracker&) = delete;
  ~select_tracker() override;

  // Accepts tasks from now on, without timers. False (logged): running already. The argument is not used.
  bool Start(unsigned long);
  bool SetTimer(ITask* task, unsigned long long interval_ms, bool once) override;
  bool KillTimer(ITask* task) override;

  // One pass: fires the timers that are due (on the calling thread), then waits until a task is ready or out of
  // time, a timer is due, or something was added or taken away. True: ask again; `out` is the next ready task,
  // or as it was when none is ready. False: stopped; ask no more before the next Start.
  //
  // Nothing but a stop ends the service. While there is no descriptor for the wake-up socket (logged once), the
  // waits are cut short instead. When select fails (logged) its tasks wait again, except those whose descriptor
  // is bad, which are dropped.
  bool GetComeleted(Task& out);

  // Ends the pass that waits and drops every task and timer, without doing it. Nothing when stopped already.
  void Shutdown();

 protected:
  // False: stopped, and the task is not kept.
  bool Enqueue(const Task& task);

 private:
  // What a control datagram says: a signed 32-bit integer in host byte order. All end a select; ie_stop also
  // stops the tracker.
  enum inner_event_type : std::int32_t {
    ie_stop = 0,
    ie_set_timer = 1,
    ie_kill_timer = 2,
    ie_add_task = 3,
  };
  struct Pass;

  struct EventDeleter {
    void operator()(tarn::event_t* event) const { tarn::event_destroy(event); }
  };

  bool IsStopped() const { return stopped_.load(std::memory_order_acquire); }
  void Wake(inner_event_type event);
  bool _read_event(inner_event_type& event);

  void FireTimers();
  void BeginPass();
  void Collect(Pass& pass);
  unsigned int WaitLimit(const Pass& pass);
  bool IdlePass(Pass& pass, Task& out);
  bool SelectPass(Pass& pass, Task& out);
  void OpenWakeUpSocket(Pass& pass);
  void RepairAfter(int error);
  void HandleControlEvent(const SelectSets& sets);
  void EndPass();

  std::atomic<bool> stopped_{true};
  std::atomic<bool> listening_{false};  // a pass waits, or is about to, and has not been told of a change yet
  const std::unique_ptr<tarn::event_t, EventDeleter> event_;  // ends an idle pass
  CUdpLoopback loopback_;                                     // ends a select pass; closed by idle passes
  bool deaf_ = false;                                         // no wake-up socket to be had; select thread only
  sem_queue<Task> uncompleted_;                               // to be entered into the next pass
  waiting_tasks<Task> waiting_;                               // those of the last pass and of this one
  CStdMutex passing_mutex_;
  bool passing_ GUARDED_BY(passing_mutex_) = false;  // the pass has waiting_ for itself
  sem_queue<Task> completed_;                        // ready to be done
  task_timed_queue timers_;
};

extern template class select_tracker<CTCPTask>;

// The tracker that streams and acceptors hand their tasks to.
class tcp_select_tracker : public select_tracker<CTCPTask>, public ITCPTaskTracker {
 public:
  bool AddTask(const CTCPTask& task) override { return Enqueue(task); }
};

#endif  // GX_REACTOR_SELECT_TRACKER_H
