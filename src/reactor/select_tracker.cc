#include "reactor/select_tracker.h"

#include <errno.h>

#include <algorithm>
#include <list>
#include <new>
#include <utility>

#include "runtime/gxmod_runtime.h"

namespace {

constexpr std::size_t kMaxTasksPerPass = 1023;  // with the wake-up socket 1024, the usual fd_set size
constexpr std::size_t kEverybody = ~std::size_t{0};
constexpr unsigned int kCrowdedWaitMs = 10;
constexpr unsigned int kDeafWaitMs = 10;  // used when there is no wake-up socket

}  // namespace

// The state of one pass. Its destructor hands the waiting tasks back, also after an exception.
template <class Task>
struct select_tracker<Task>::Pass {
  explicit Pass(select_tracker& owner) : tracker(owner) { tracker.BeginPass(); }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;
  ~Pass() { tracker.EndPass(IsFull()); }

  bool IsFull() const { return collected == kMaxTasksPerPass; }

  select_tracker& tracker;
  std::list<Task> timed_out;
  std::size_t collected = 0;
};

template <class Task>
select_tracker<Task>::select_tracker() : event_(tarn::event_create(false, false)) {
  if (event_ == nullptr) throw std::bad_alloc();
}

template <class Task>
select_tracker<Task>::~select_tracker() {
  Shutdown();
}

template <class Task>
bool select_tracker<Task>::Start(unsigned long) {
  if (!IsStopped()) {
    GXModLog(kGXModLogError, "[select_tracker] is already started when call Start");
    return false;
  }
  if (!uncompleted_.open(0)) {
    GXModLog(kGXModLogError, "[select_tracker] open uncompleted queue failed");
    return false;
  }
  if (!completed_.open(0)) {
    GXModLog(kGXModLogError, "[select_tracker] open completed queue failed");
    return false;
  }
  timers_.clean();
  loopback_.Destroy();  // a stop event from the previous run may still be queued in it
  stopped_.store(false, std::memory_order_release);
  GXModLog(kGXModLogTrace, "[select_tracker] run ok");
  return true;
}

template <class Task>
bool select_tracker<Task>::SetTimer(ITask* task, unsigned long long interval_ms, bool once) {
  timers_.push(task, interval_ms, once);
  Wake(ie_set_timer);
  return true;
}

template <class Task>
bool select_tracker<Task>::KillTimer(ITask* task) {
  timers_.erase(task);
  Wake(ie_kill_timer);
  return true;
}

template <class Task>
bool select_tracker<Task>::GetComeleted(Task& out) {
  if (IsStopped()) return false;
  if (completed_.peek(out)) return true;
  FireTimers();
  Pass pass(*this);
  Collect(pass);
  return !waiting_.empty() ? SelectPass(pass, out) : IdlePass(pass, out);
}

template <class Task>
void select_tracker<Task>::Shutdown() {
  if (stopped_.exchange(true, std::memory_order_acq_rel)) return;
  Wake(ie_stop);
  std::list<Task> dropped;  // destroyed after the lock is released
  {
    CStdLock lock(passing_mutex_);
    if (!passing_) dropped = waiting_.Close();
  }
  uncompleted_.close();
  completed_.close();
  timers_.clean();
}

template <class Task>
bool select_tracker<Task>::Enqueue(const Task& task) {
  if (IsStopped()) return false;
  uncompleted_.push(task, true);  // if a stop closes the queue first, the task is dropped like the queued ones
  Wake(ie_add_task);
  return true;
}

// Called after every change: the event ends an idle pass, the datagram ends a select. A datagram is sent only
// while a pass is listening, once per pass. Changes at other times need none: a pass looks for them before it
// waits, and again after it opens the socket.
template <class Task>
void select_tracker<Task>::Wake(inner_event_type event) {
  tarn::event_set(event_.get());
  if (listening_.exchange(false) || event == ie_stop) loopback_.Write(&event, sizeof event);
}

template <class Task>
bool select_tracker<Task>::_read_event(inner_event_type& event) {
  inner_event_type received;
  const int got = loopback_.Read(&received, sizeof received);
  if (got < static_cast<int>(sizeof received)) {
    GXModLog(kGXModLogTrace, "[select_tracker] recv event failed, return %d", got);
    return false;
  }
  event = received;
  return true;
}

template <class Task>
void select_tracker<Task>::FireTimers() {
  CRefObj<ITask> task;
  // A timer that repeats every 0 ms is always due, so check for a stop as well.
  while (!IsStopped() && timers_.pop(task)) {
    if (task) task->Done();
  }
}

template <class Task>
void select_tracker<Task>::BeginPass() {
  CStdLock lock(passing_mutex_);
  passing_ = true;
}

template <class Task>
void select_tracker<Task>::Collect(Pass& pass) {
  listening_ = true;  // set before looking, so that a later change sends a datagram
  std::list<Task> fresh = uncompleted_.take(kEverybody);
  if (fresh.size() + waiting_.size() > kMaxTasksPerPass) {
    std::list<Task> everybody = waiting_.TakeAll();
    everybody.splice(everybody.end(), fresh);
    uncompleted_.append(everybody);
    fresh = uncompleted_.take(kMaxTasksPerPass);
  }
  pass.collected = fresh.size() + waiting_.size();
  waiting_.Enter(std::move(fresh), pass.timed_out);
}

// The time limit of this pass's wait in milliseconds. A timed-out task ends the wait at once. In a full pass
// the wait is short, because more tasks are queued behind it.
template <class Task>
unsigned int select_tracker<Task>::WaitLimit(const Pass& pass) {
  if (!pass.timed_out.empty()) return 0;
  unsigned int limit = timers_.next_pop_time();
  limit = static_cast<unsigned int>(std::min<std::uint64_t>(limit, waiting_.TimeLeft()));
  if (pass.IsFull()) limit = std::min(limit, kCrowdedWaitMs);
  return deaf_ && !waiting_.empty() ? std::min(limit, kDeafWaitMs) : limit;
}

template <class Task>
bool select_tracker<Task>::IdlePass(Pass& pass, Task& out) {
  loopback_.Destroy();
  tarn::event_timedwait(event_.get(), static_cast<long>(WaitLimit(pass)));
  if (IsStopped()) return false;
  HandOut(pass.timed_out, out);
  return true;
}

template <class Task>
bool select_tracker<Task>::SelectPass(Pass& pass, Task& out) {
  const int wake_up = OpenWakeUpSocket(pass);
  if (IsStopped()) return false;
  SelectSets sets = waiting_.Sets();
  sets.Watch(wake_up);
  const int result = Select(pass, wake_up, sets);
  const int error = errno;
  std::list<Task> ready;
  if (result < 0) {
    GXModLog(kGXModLogTrace, "[select_tracker] select return %d, cause %u", result,
             static_cast<unsigned>(error));
    RepairAfter(error);
  } else {
    HandleControlEvent(sets, wake_up);
    waiting_.TakeReady(sets, ready);
  }
  if (IsStopped()) return false;
  ready.splice(ready.end(), pass.timed_out);
  HandOut(ready, out);
  return true;
}

// Of many tasks, select looks only at those with news. Otherwise, and when none of these is ready, it waits for
// all: a descriptor that has hung up may have news in every pass, and one that was closed never has any. A full
// pass has other tasks than the last one, and to arm these costs more than select. Without a wake-up socket
// each wait is short, and two would take twice as long.
template <class Task>
int select_tracker<Task>::Select(const Pass& pass, int wake_up, SelectSets& sets) {
  if (!pass.IsFull() && !deaf_ && waiting_.UseEpoll()) {
    const SelectSets all = sets;
    waiting_.AwaitNews(sets, wake_up, WaitLimit(pass));
    DescriptorSet tasks = sets.failed;
    tasks.Remove(wake_up);
    if (const int result = tasks.empty() ? 0 : sets.Select(0); result != 0) return result;
    sets = all;
  }
  return sets.Select(WaitLimit(pass));
}

// A pass begins only while completed_ is empty, so the first task of `ready` is the next one to run.
template <class Task>
void select_tracker<Task>::HandOut(std::list<Task>& ready, Task& out) {
  if (ready.empty()) return;
  out = std::move(ready.front());
  ready.pop_front();
  if (!ready.empty()) completed_.append(ready);
}

// Returns the descriptor, or -1 when none is free: the open connections are served nevertheless.
template <class Task>
int select_tracker<Task>::OpenWakeUpSocket(Pass& pass) {
  if (const int open = loopback_.GetHandle(); open != -1) return open;
  const bool was_deaf = std::exchange(deaf_, !loopback_.CreateIfNot());
  if (deaf_ && !was_deaf) GXModLog(kGXModLogError, "[select_tracker] udp loopback create failed");
  listening_ = true;  // changes made while the socket was closed sent no datagram: look again
  std::list<Task> fresh = uncompleted_.take(kMaxTasksPerPass - pass.collected);
  pass.collected += fresh.size();
  waiting_.EnterLast(std::move(fresh), pass.timed_out);
  return loopback_.GetHandle();
}

// All tasks wait again, except those with a bad descriptor.
template <class Task>
void select_tracker<Task>::RepairAfter(int error) {
  if (error == EBADF) {
    loopback_.Destroy();  // the wake-up socket may be the bad one, closed by a faulty caller
    waiting_.DropBad();
  } else if (error != EINTR) {  // changing user ids interrupts select even with all signals blocked
    tarn::event_timedwait(event_.get(), kCrowdedWaitMs);  // an immediate retry would fail again
  }
}

// Tasks that were added during the pass, or did not fit into a full one, go before the others in the next pass.
// After a stop the pass drops its own waiting tasks.
template <class Task>
void select_tracker<Task>::EndPass(bool full) {
  const bool nobody_came = listening_.exchange(false);
  if (full || !nobody_came) waiting_.EndPass(uncompleted_.take(kEverybody));
  std::list<Task> dropped;  // outlives the lock
  CStdLock lock(passing_mutex_);
  passing_ = false;
  if (IsStopped()) dropped = waiting_.Close();
}

// Reads one datagram per pass; further ones end the next selects.
template <class Task>
void select_tracker<Task>::HandleControlEvent(const SelectSets& sets, int handle) {
  inner_event_type event;
  if (sets.read.Has(handle) && _read_event(event) && event == ie_stop) {
    stopped_.store(true, std::memory_order_release);
    GXModLog(kGXModLogInfo, "[select_tracker] control event : Stop");
  } else if (sets.failed.Has(handle)) {
    GXModLog(kGXModLogInfo, "[select_tracker] control event socket be closed");
    loopback_.Destroy();
  }
}

template class select_tracker<CTCPTask>;
