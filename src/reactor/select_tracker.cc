#include "reactor/select_tracker.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <list>
#include <new>
#include <utility>

#include "runtime/gxmod_runtime.h"

namespace {

constexpr std::size_t kMaxTasksPerPass =
    1023;  // with the wake-up socket 1024, what an fd_set holds on most systems
constexpr unsigned int kCrowdedWaitMs = 10;
constexpr unsigned int kDeafWaitMs = 10;  // for want of a wake-up socket

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
  std::list<Task> tasks;
  DescriptorSet ready;
};

// What one pass has collected. The entries of the queues themselves travel through it: a pass that needed
// memory of its own could lose everybody's tasks for want of it.
template <class Task>
struct select_tracker<Task>::Pass {
  bool IsFull() const { return collected == kMaxTasksPerPass; }
  bool HasWaiters() const { return !readers.tasks.empty() || !writers.tasks.empty(); }

  // Takes over all of `tasks`; those that wait for nothing known are dropped.
  void Enter(std::list<Task> tasks) {
    collected += tasks.size();
    while (!tasks.empty()) {
      if (std::list<Task>* place = PlaceOf(tasks.front())) {
        place->splice(place->end(), tasks, tasks.begin());
      } else {
        tasks.pop_front();
      }
    }
  }

  std::list<Task>* PlaceOf(const Task& task) {
    if (task && task->timeout()) return &timed_out;
    if (task.type() == kWaitWritable) return &Wait(writers, task).tasks;
    if (task.type() == kWaitReadable) return &Wait(readers, task).tasks;
    return nullptr;
  }

  Waiters& Wait(Waiters& waiters, const Task& task) {
    Watch(task.socket(), waiters.ready);
    if (task) limit_ms = std::min<std::uint64_t>(limit_ms, task->timeleft());
    return waiters;
  }

  void Watch(int descriptor, DescriptorSet& ready) {
    ready.Add(descriptor);
    failed.Add(descriptor);
    if (IsSelectable(descriptor)) highest = std::max(highest, descriptor);
  }

  int Select(std::uint64_t wait_ms) {
    timeval limit;
    limit.tv_sec = static_cast<decltype(limit.tv_sec)>(wait_ms / 1000);
    limit.tv_usec = static_cast<decltype(limit.tv_usec)>(wait_ms % 1000 * 1000);
    return select(highest + 1, readers.ready.get(), writers.ready.get(), failed.get(),
                  wait_ms == task_timed_queue::kNoTimer ? nullptr : &limit);
  }

  std::size_t collected = 0;
  Waiters readers;
  Waiters writers;
  std::list<Task> timed_out;
  DescriptorSet failed;  // as `ready`, for all descriptors
  int highest = 0;
  std::uint64_t limit_ms = task_timed_queue::kNoTimer;  // until the first of the waiters is out of time
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
  const bool go_on = pass.HasWaiters() ? SelectPass(pass, out) : IdlePass(pass, out);
  listening_ = false;
  return go_on;
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
// socket looks again afterwards, so a change that found no socket is not missed either. Nobody needs the
// datagram of a change that the select thread makes itself, of one between two passes, which the next pass sees
// before it waits, or of the second one during one pass.
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
  // A timer that repeats every 0 ms is always due; a stop has to get through all the same.
  while (!IsStopped() && timers_.pop(task)) {
    if (task) task->Done();
  }
}

template <class Task>
void select_tracker<Task>::Collect(Pass& pass) {
  listening_ = true;  // before it looks: what comes too late to be seen finds it set
  pass.Enter(uncompleted_.take(kMaxTasksPerPass - pass.collected));
}

// Milliseconds until this pass has to end by itself. A task whose time has passed does not wait for the others,
// and tasks that found no place in a full pass do not wait for an event of those that did.
template <class Task>
unsigned int select_tracker<Task>::WaitLimit(const Pass& pass) {
  if (!pass.timed_out.empty()) return 0;
  unsigned int limit = timers_.next_pop_time();
  if (pass.limit_ms < limit) limit = static_cast<unsigned int>(pass.limit_ms);
  if (pass.IsFull()) limit = std::min(limit, kCrowdedWaitMs);
  return pass.HasWaiters() && deaf_ ? std::min(limit, kDeafWaitMs) : limit;
}

template <class Task>
bool select_tracker<Task>::IdlePass(Pass& pass, Task& out) {
  loopback_.Destroy();
  tarn::event_timedwait(event_.get(), static_cast<long>(WaitLimit(pass)));
  if (IsStopped()) return false;
  completed_.append(pass.timed_out);
  completed_.peek(out);
  return true;
}

template <class Task>
bool select_tracker<Task>::SelectPass(Pass& pass, Task& out) {
  OpenWakeUpSocket(pass);
  if (IsStopped()) return false;
  const int result = pass.Select(WaitLimit(pass));
  const int error = errno;
  if (result < 0) {
    GXModLog(kGXModLogTrace, "[select_tracker] select return %d, cause %u", result,
             static_cast<unsigned>(error));
    RepairAfter(error, pass);
  } else {
    HandleControlEvent(pass);
    Dispatch(pass.readers, pass.failed);
    Dispatch(pass.writers, pass.failed);
  }
  if (IsStopped()) return false;
  completed_.append(pass.timed_out);
  completed_.peek(out);
  return true;
}

// A process that has run out of descriptors must go on with the connections that it has.
template <class Task>
void select_tracker<Task>::OpenWakeUpSocket(Pass& pass) {
  const bool was_closed = loopback_.GetHandle() == -1;
  const bool was_deaf = std::exchange(deaf_, !loopback_.CreateIfNot());
  if (deaf_ && !was_deaf) GXModLog(kGXModLogError, "[select_tracker] udp loopback create failed");
  pass.Watch(loopback_.GetHandle(), pass.readers.ready);
  if (was_closed) Collect(pass);  // what came meanwhile could not be announced
}

// Everybody waits again, but for the tasks whose descriptor is bad.
template <class Task>
void select_tracker<Task>::RepairAfter(int error, Pass& pass) {
  if (error == EBADF) {
    loopback_.Destroy();  // the bad one may be our own, closed by somebody's mistake
    const auto is_bad = [](const Task& task) { return IsBadDescriptor(task.socket()); };
    pass.readers.tasks.remove_if(is_bad);
    pass.writers.tasks.remove_if(is_bad);
  } else if (error != EINTR) {  // a change of user ids interrupts every thread, whatever signals it blocks
    tarn::event_timedwait(event_.get(), kCrowdedWaitMs);  // nothing that trying at once would cure
  }
  uncompleted_.append(pass.readers.tasks);
  uncompleted_.append(pass.writers.tasks);
}

// One datagram per pass; the next ones end the next selects.
template <class Task>
void select_tracker<Task>::HandleControlEvent(const Pass& pass) {
  const int handle = loopback_.GetHandle();
  inner_event_type event;
  if (pass.readers.ready.Has(handle) && _read_event(event) && event == ie_stop) {
    stopped_.store(true, std::memory_order_release);
    GXModLog(kGXModLogInfo, "[select_tracker] control event : Stop");
  } else if (pass.failed.Has(handle)) {
    GXModLog(kGXModLogInfo, "[select_tracker] control event socket be closed");
    loopback_.Destroy();
  }
}

template <class Task>
void select_tracker<Task>::Dispatch(Waiters& waiters, const DescriptorSet& failed) {
  std::list<Task> ready;
  for (auto next = waiters.tasks.begin(); next != waiters.tasks.end();) {
    const auto entry = next++;
    const int descriptor = entry->socket();
    const bool error = failed.Has(descriptor);
    if (!error && !waiters.ready.Has(descriptor)) continue;
    if (error || (entry->selectop() == kSelectConnect && HasConnectFailed(descriptor))) {
      entry->selectop() = kSelectError;
    }
    ready.splice(ready.end(), waiters.tasks, entry);
  }
  completed_.append(ready);
  uncompleted_.append(waiters.tasks);
}

template class select_tracker<CTCPTask>;
