// The core of the reactor: waits for descriptors, timers and new tasks, one pass at a time.
#ifndef GX_REACTOR_SELECT_TRACKER_H
#define GX_REACTOR_SELECT_TRACKER_H

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>

#include "base/event.h"
#include "base/mutex_lock.h"
#include "reactor/sem_queue.h"
#include "reactor/task_timed_queue.h"
#include "reactor/tcp_task.h"
#include "reactor/timer.h"
#include "reactor/udp_loopback.h"
#include "reactor/waiting_tasks.h"

// States:    stopped (initially); running, from Start to Shutdown. A stopped tracker refuses tasks. It accepts
//            timers, but the next Start drops them.
// Threads:   any thread may call SetTimer, KillTimer and the derived class's AddTask. One thread at a time, the
//            select thread, calls GetComeleted. The owner calls Start and Shutdown; Start only while no thread
//            is in GetComeleted.
// Ownership: one reference per waiting task and per timer. No lock is held while a pass waits or calls a task.
template <class Task>
class select_tracker : public ITimer {
 public:
  // Throws std::bad_alloc when the system cannot create the wake event.
  select_tracker();
  select_tracker(const select_tracker&) = delete;
  select_tracker& operator=(const select_tracker&) = delete;
  ~select_tracker() override;

  // Accepts tasks from now on, and starts without timers. Returns false (logged) when already running. The
  // argument is ignored.
  bool Start(unsigned long);
  bool SetTimer(ITask* task, unsigned long long interval_ms, bool once) override;
  bool KillTimer(ITask* task) override;

  // One pass: fires the due timers on the calling thread, then waits until a task is ready or timed out, a
  // timer is due, or something was added or removed. Returns true to be called again; `out` is the next ready
  // task, or unchanged when no task is ready. Returns false when stopped; call it again only after the next
  // Start.
  //
  // Only a stop ends the service. When no descriptor is left for the wake-up socket (logged once), each wait is
  // kept short instead. When select fails (logged), its tasks wait again, except those with a bad descriptor,
  // which are dropped.
  bool GetComeleted(Task& out);

  // Ends a waiting pass and drops all tasks and timers without running them. Does nothing when already stopped.
  void Shutdown();

 protected:
  // Returns false when stopped; the task is then dropped.
  bool Enqueue(const Task& task);

 private:
  // The content of a control datagram: a signed 32-bit integer in host byte order. Each one ends a select;
  // ie_stop also stops the tracker.
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
  void HandOut(std::list<Task>& ready, Task& out);
  int OpenWakeUpSocket(Pass& pass);
  int Select(const Pass& pass, int wake_up, SelectSets& sets);
  void RepairAfter(int error);
  void HandleControlEvent(const SelectSets& sets, int handle);
  void EndPass(bool full);

  std::atomic<bool> stopped_{true};
  std::atomic<bool> listening_{false};  // a pass waits or is about to, and a change must send it a datagram
  const std::unique_ptr<tarn::event_t, EventDeleter> event_;  // ends an idle pass
  CUdpLoopback loopback_;                                     // ends a select pass; closed by idle passes
  bool deaf_ = false;            // no wake-up socket could be opened; select thread only
  sem_queue<Task> uncompleted_;  // tasks for the next pass
  waiting_tasks<Task> waiting_;  // tasks of the last pass and of this one
  CStdMutex passing_mutex_;
  bool passing_ GUARDED_BY(passing_mutex_) = false;  // the pass uses waiting_ exclusively
  sem_queue<Task> completed_;                        // ready to run
  task_timed_queue timers_;
};

extern template class select_tracker<CTCPTask>;

// The tracker to which streams and acceptors add their tasks.
class tcp_select_tracker : public select_tracker<CTCPTask>, public ITCPTaskTracker {
 public:
  bool AddTask(const CTCPTask& task) override { return Enqueue(task); }
};

#endif  // GX_REACTOR_SELECT_TRACKER_H
