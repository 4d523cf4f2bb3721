#include "reactor/select_tracker.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <new>
#include <utility>

#include "runtime/gxmod_runtime.h"

namespace {

constexpr int kMaxTasksPerPass = 1023;  // with the wake-up socket 1024, what an fd_set holds on most systems
constexpr unsigned int kCrowdedWaitMs = 10;

bool IsBadDescriptor(int descriptor) {
  if (!IsSelectable(descriptor)) return false;
  DescriptorSet probe;
  probe.Add(descriptor);
  timeval at_once{};
  return select(descriptor + 1, probe.get(), nullptr, nullptr, &at_once) < 0 && errno == EBADF;
}

bool HasConnectFailed(int descriptor) {
  std::int32_t error = 0;
  socklen_t length = sizeof error;
  return getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0;
}

}  // namespace

// The tasks of a pass that wait for the same thing. `ready` holds all their descriptors before select, those
// that are ready after it.
template <class Task>
struct select_tracker<Task>::Waiters {
  std::vector<Task> tasks;
  DescriptorSet ready;
};

// What one pass has collected.
template <class Task>
struct select_tracker<Task>::Pass {
  bool IsFull() const { return collected == kMaxTasksPerPass; }
  bool HasWaiters() const { return !readers.tasks.empty() || !writers.tasks.empty(); }

  void Enter(const Task& task) {
    ++collected;
    if (task && task->timeout()) {
      timed_out.push_back(task);
    } else if (task.type() == kWaitWritable) {
      Watch(task.socket(), writers.ready);
      writers.tasks.push_back(task);
    } else if (task.type() == kWaitReadable) {
      Watch(task.socket(), readers.ready);
      readers.tasks.push_back(task);
    }
  }

  void Watch(int descriptor, DescriptorSet& ready) {
    ready.Add(descriptor);
    failed.Add(descriptor);
    if (IsSelectable(descriptor)) highest = std::max(highest, descriptor);
  }

  int Select(unsigned int limit_ms) {
    timeval limit;
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(limit_ms / 1000);
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>(limit_ms % 1000 * 1000);
    return select(highest + 1, readers.ready.get(), writers.ready.get(), failed.get(),
                  limit_ms == task_timed_queue::kNoTimer ? nullptr : &limit);
  }

  int collected = 0;
  Waiters readers;
  Waiters writers;
  std::vector<Task> timed_out;
  DescriptorSet failed;  // as `ready`, for all descriptors
  int highest = 0;
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
  loopback_.Destroy();  // the stop event of the previous run may still be queued in it
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
  Pass pass;
  Collect(pass);
  return pass.HasWaiters() ? SelectPass(pass, out) : IdlePass(pass, out);
}

template <class Task>
void select_tracker<Task>::Shutdown() {
  if (stopped_.exchange(true, std::memory_order_acq_rel)) return;
  Wake(ie_stop);
  uncompleted_.close();
  completed_.close();
  timers_.clean();
}

template <class Task>
bool select_tracker<Task>::Enqueue(const Task& task) {
  if (IsStopped()) return false;
  uncompleted_.push(task, true);  // refused by a stop meanwhile: then it is dropped like those in the queue
  Wake(ie_add_task);
  return true;
}

// Called after every change: the event ends an idle pass, the datagram a select. A select pass that opens the
// socket looks again afterwards, so a change that found no socket is not missed either.
template <class Task>
void select_tracker<Task>::Wake(inner_event_type event) {
  tarn::event_set(event_.get());
  loopback_.Write(&event, sizeof event);
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
  // A timer that repeats every 0 ms is always due; a stop has to get through all the same.
  while (!IsStopped() && timers_.pop(task)) {
    if (task) task->Done();
  }
}

template <class Task>
void select_tracker<Task>::Collect(Pass& pass) {
  Task task;
  while (!pass.IsFull() && uncompleted_.peek(task)) pass.Enter(task);
}

// Milliseconds until this pass has to end by itself. A task whose time has passed does not wait for the others,
// and tasks that found no place in a full pass do not wait for an event of those that did.
template <class Task>
unsigned int select_tracker<Task>::WaitLimit(const Pass& pass) {
  if (!pass.timed_out.empty()) return 0;
  const unsigned int next = timers_.next_pop_time();
  return pass.IsFull() ? std::min(next, kCrowdedWaitMs) : next;
}

template <class Task>
bool select_tracker<Task>::IdlePass(Pass& pass, Task& out) {
  loopback_.Destroy();
  tarn::event_timedwait(event_.get(), static_cast<long>(WaitLimit(pass)));
  if (IsStopped()) return false;
  Complete(pass.timed_out);
  completed_.peek(out);
  return true;
}

template <class Task>
bool select_tracker<Task>::SelectPass(Pass& pass, Task& out) {
  if (!OpenWakeUpSocket(pass)) return false;
  const int result = pass.Select(WaitLimit(pass));
  if (result < 0) {
    if (!HandleSelectError(pass, result, errno)) return false;
  } else {
    if (IsStopped() || !HandleControlEvent(pass)) return false;
    Dispatch(pass.readers, pass.failed);
    Dispatch(pass.writers, pass.failed);
    Complete(pass.timed_out);
  }
  completed_.peek(out);
  return true;
}

template <class Task>
bool select_tracker<Task>::OpenWakeUpSocket(Pass& pass) {
  const bool was_closed = loopback_.GetHandle() == -1;
  if (!loopback_.CreateIfNot()) {
    GXModLog(kGXModLogError, "[select_tracker] udp loopback create failed");
    return false;
  }
  pass.Watch(loopback_.GetHandle(), pass.readers.ready);
  if (was_closed) Collect(pass);  // what came meanwhile could not be announced
  return !IsStopped();
}

// True: select failed for a bad descriptor, whose tasks are dropped while the others wait again. Tasks whose
// time has passed are given up with the pass.
template <class Task>
bool select_tracker<Task>::HandleSelectError(const Pass& pass, int result, int error) {
  GXModLog(kGXModLogTrace, "[select_tracker] select return %d, cause %u", result, static_cast<unsigned>(error));
  if (error != EBADF) return false;
  loopback_.Destroy();  // the bad one may be our own, closed by somebody's mistake
  RequeueValid(pass.readers);
  RequeueValid(pass.writers);
  return true;
}

// One datagram per pass; the next ones end the next selects. False: stop.
template <class Task>
bool select_tracker<Task>::HandleControlEvent(const Pass& pass) {
  const int handle = loopback_.GetHandle();
  inner_event_type event;
  if (pass.readers.ready.Has(handle) && _read_event(event) && event == ie_stop) {
    stopped_.store(true, std::memory_order_release);
    GXModLog(kGXModLogInfo, "[select_tracker] control event : Stop");
    return false;
  }
  if (pass.failed.Has(handle)) {
    GXModLog(kGXModLogInfo, "[select_tracker] control event socket be closed");
    return false;
  }
  return true;
}

template <class Task>
void select_tracker<Task>::RequeueValid(const Waiters& waiters) {
  for (const Task& task : waiters.tasks) {
    if (!IsBadDescriptor(task.socket())) uncompleted_.push(task, true);
  }
}

template <class Task>
void select_tracker<Task>::Dispatch(const Waiters& waiters, const DescriptorSet& failed) {
  for (const Task& task : waiters.tasks) {
    const int descriptor = task.socket();
    const bool error = failed.Has(descriptor);
    if (!error && !waiters.ready.Has(descriptor)) {
      uncompleted_.push(task, true);
      continue;
    }
    if (error || (task.selectop() == kSelectConnect && HasConnectFailed(descriptor))) {
      task.selectop() = kSelectError;
    }
    completed_.push(task, true);
  }
}

template <class Task>
void select_tracker<Task>::Complete(const std::vector<Task>& tasks) {
  for (const Task& task : tasks) completed_.push(task, true);
}

template class select_tracker<CTCPTask>;
