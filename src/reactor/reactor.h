// The running reactor: a tracker and the work threads that ask it for ready tasks and run them.
#ifndef GX_REACTOR_REACTOR_H
#define GX_REACTOR_REACTOR_H

#include <atomic>
#include <list>
#include <memory>

#include "base/base_thread.h"
#include "reactor/select_tracker.h"

// States: created; running, from a successful Run to Stop; stopped, until the next Run. A work thread that the
// tracker sends away (select failed, or no wake-up socket) is not restarted before the next Stop and Run.
// Threads: Run and Stop are the owner's and must not overlap; AddTask, SetTimer and KillTimer are anybody's.
template <class Tracker>
class CReactor_T : public Tracker {
 public:
  CReactor_T() = default;
  ~CReactor_T() override { Stop(); }

  // Starts `threads` work threads. False when none could be started. True at once while running.
  bool Run(unsigned long threads);
  // Ends every wait, joins the threads and drops every task and timer without running it. True when every
  // thread has ended.
  bool Stop();
  bool IsRunning() const { return running_.load(std::memory_order_acquire); }

  // The work of one thread until the tracker sends it away; then false.
  bool DoWork();

 private:
  class CWorkThread final : public CBaseThread {
   public:
    explicit CWorkThread(CReactor_T* reactor) : reactor_(reactor) {}
    ~CWorkThread() override { Stop(); }
    using CBaseThread::Stop;

   protected:
    bool ThreadLoop() override { return IsStopRequested() ? false : reactor_->DoWork(); }

   private:
    CReactor_T* const reactor_;
  };

  unsigned long thread_count_ = 0;
  std::list<std::unique_ptr<CWorkThread>> threads_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> running_{false};
};

#include "reactor/reactor_inl.h"

#endif  // GX_REACTOR_REACTOR_H
