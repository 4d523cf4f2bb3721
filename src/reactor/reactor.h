// The running reactor: a tracker and the work threads that ask it for ready tasks and run them.
#ifndef GX_REACTOR_REACTOR_H
#define GX_REACTOR_REACTOR_H

#include <atomic>
#include <list>
#include <memory>

#include "base/base_thread.h"
#include "base/mutex_lock.h"
#include "reactor/select_tracker.h"

// States: created; running, from a successful Run to Stop; stopped, until the next Run. Nothing but Stop ends a
// work thread: the tracker gets over a select that fails and a wake-up socket that cannot be had.
// Threads: Run and Stop are the owner's and must not overlap; AddTask, SetTimer and KillTimer are anybody's.
template <class Tracker>
class CReactor_T : public Tracker {
 public:
  CReactor_T() = default;
  ~CReactor_T() override { Stop(); }

  // Starts `threads` work threads, or as many as there is memory and room for. False when none could be
  // started: the reactor is as stopped as before. True at once while running.
  bool Run(unsigned long threads);
  // Ends every wait, joins the threads and drops every task and timer without running it. True when every
  // thread has ended.
  bool Stop();
  bool IsRunning() const { return running_.load(std::memory_order_acquire); }

  // The work of one thread until the tracker sends it away; then false. An exception that a task lets out is
  // logged and the work goes on.
  bool DoWork();

 private:
  class CWorkThread final : public CBaseThread {
   public:
    explicit CWorkThread(CReactor_T* reactor) : reactor_(reactor) { SetThreadName("reactor"); }
    ~CWorkThread() override { Stop(); }
    using CBaseThread::Stop;

   protected:
    bool ThreadLoop() override { return IsStopRequested() ? false : reactor_->DoWork(); }

   private:
    CReactor_T* const reactor_;
  };

  bool NextTask(CTCPTask& task);

  // One work thread at a time waits, and fires timers; the others run a task or wait for their turn. Only work
  // threads take it.
  CStdMutex turn_;
  std::list<std::unique_ptr<CWorkThread>> threads_;  // only Run and Stop, on the owner's thread
  std::atomic<bool> stopping_{false};
  std::atomic<bool> running_{false};
};

extern template class CReactor_T<tcp_select_tracker>;

#endif  // GX_REACTOR_REACTOR_H
