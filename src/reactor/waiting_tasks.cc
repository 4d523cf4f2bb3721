#include "reactor/waiting_tasks.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/clock.h"

namespace {

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

void SelectSets::Watch(int descriptor) {
  read.Add(descriptor);
  failed.Add(descriptor);
  if (IsSelectable(descriptor)) highest = std::max(highest, descriptor);
}

int SelectSets::Select(unsigned int wait_ms) {
  timeval limit;
  limit.tv_sec = static_cast<decltype(limit.tv_sec)>(wait_ms / 1000);
  limit.tv_usec = static_cast<decltype(limit.tv_usec)>(wait_ms % 1000 * 1000);
  return select(highest + 1, read.get(), write.get(), failed.get(), wait_ms == ~0U ? nullptr : &limit);
}

template <class Task>
void waiting_tasks<Task>::EndPass(std::list<Task> came) {
  came_.splice(came_.end(), came);
}

template <class Task>
void waiting_tasks<Task>::Enter(std::list<Task> fresh, std::list<Task>& late) {
  std::list<Task> readers, writers;
  Sort(std::exchange(came_, {}), readers, writers, late);
  const bool some_left = TakeLate(late);
  // A deadline may have moved closer, for example when a read with another limit finished.
  const bool limited = deadline_ms_ != kNoDeadline;
  Sort(std::move(fresh), readers_.tasks, writers_.tasks, late);
  readers_.tasks.splice(readers_.tasks.begin(), readers);
  writers_.tasks.splice(writers_.tasks.begin(), writers);
  if (some_left || limited) WatchAnew();
}

template <class Task>
void waiting_tasks<Task>::EnterLast(std::list<Task> fresh, std::list<Task>& late) {
  Sort(std::move(fresh), readers_.tasks, writers_.tasks, late);
}

template <class Task>
std::uint64_t waiting_tasks<Task>::TimeLeft() const {
  if (deadline_ms_ == kNoDeadline) return kNoDeadline;
  const std::uint64_t now_ms = gettickcount();
  return deadline_ms_ > now_ms ? deadline_ms_ - now_ms : 0;
}

template <class Task>
SelectSets waiting_tasks<Task>::Sets() const {
  SelectSets sets{readers_.descriptors, writers_.descriptors, readers_.descriptors, highest_};
  sets.failed.AddAll(writers_.descriptors);
  return sets;
}

template <class Task>
void waiting_tasks<Task>::AwaitNews(SelectSets& sets, int wake_up, unsigned int wait_ms) {
  epoll_.Disarm(wake_up);  // the socket may have been opened anew
  const DescriptorSet news = epoll_.Wait(sets.read, sets.write, wait_ms);
  for (DescriptorSet* set : {&sets.read, &sets.write, &sets.failed}) set->KeepOnly(news);
}

template <class Task>
void waiting_tasks<Task>::TakeReady(const SelectSets& sets, std::list<Task>& ready) {
  TakeReady(readers_, sets.read, sets.failed, ready);
  TakeReady(writers_, sets.write, sets.failed, ready);
}

template <class Task>
void waiting_tasks<Task>::DropBad() {
  std::list<Task> bad;
  const auto is_bad = [](const Task& task) { return IsBadDescriptor(task.socket()); };
  Take(readers_, bad, is_bad);
  Take(writers_, bad, is_bad);
  WatchAnew();
}

template <class Task>
std::list<Task> waiting_tasks<Task>::TakeAll() {
  std::list<Task> all = std::exchange(came_, {});
  all.splice(all.end(), std::exchange(readers_, {}).tasks);
  all.splice(all.end(), std::exchange(writers_, {}).tasks);
  highest_ = 0;
  deadline_ms_ = kNoDeadline;
  return all;
}

template <class Task>
std::list<Task> waiting_tasks<Task>::Close() {
  epoll_.Close();
  return TakeAll();
}

template <class Task>
void waiting_tasks<Task>::Sort(std::list<Task> fresh, std::list<Task>& readers, std::list<Task>& writers,
                               std::list<Task>& late) {
  while (!fresh.empty()) {
    const Task& task = fresh.front();
    epoll_.Disarm(task.socket());  // it may be another socket than the one that had this number before
    if (task && task->timeout()) {
      late.splice(late.end(), fresh, fresh.begin());
    } else if (task.type() == kWaitWritable) {
      Watch(writers_, task);
      writers.splice(writers.end(), fresh, fresh.begin());
    } else if (task.type() == kWaitReadable) {
      Watch(readers_, task);
      readers.splice(readers.end(), fresh, fresh.begin());
    } else {
      fresh.pop_front();
    }
  }
}

template <class Task>
bool waiting_tasks<Task>::TakeLate(std::list<Task>& late) {
  const std::size_t had = late.size();
  const auto is_late = [](const Task& task) { return task && task->timeout(); };
  Take(readers_, late, is_late);
  Take(writers_, late, is_late);
  return late.size() != had;
}

// When a stream gets its first time limit, it adds a new task, so Watch sees that limit.
template <class Task>
void waiting_tasks<Task>::Watch(Waiters& waiters, const Task& task) {
  const int descriptor = task.socket();
  waiters.shared = waiters.shared || waiters.descriptors.Has(descriptor);
  waiters.descriptors.Add(descriptor);
  if (IsSelectable(descriptor)) highest_ = std::max(highest_, descriptor);
  const std::uint64_t left_ms = task ? task->timeleft() : kNoDeadline;
  if (left_ms == kNoDeadline) return;
  const std::uint64_t now_ms = gettickcount();
  if (left_ms < kNoDeadline - now_ms) deadline_ms_ = std::min(deadline_ms_, now_ms + left_ms);
}

template <class Task>
void waiting_tasks<Task>::WatchAnew() {
  highest_ = 0;
  deadline_ms_ = kNoDeadline;
  for (Waiters* waiters : {&readers_, &writers_}) {
    waiters->descriptors = {};
    waiters->shared = false;
    for (const Task& task : waiters->tasks) Watch(*waiters, task);
  }
}

// Takes all tasks that wait for a ready descriptor. Recently ready tasks are at the back of the list, so
// searching from the back is usually short.
template <class Task>
void waiting_tasks<Task>::TakeReady(Waiters& waiters, DescriptorSet ready, const DescriptorSet& failed,
                                    std::list<Task>& out) {
  if (waiters.tasks.empty()) return;
  ready.AddAll(failed);
  ready.KeepOnly(waiters.descriptors);
  waiters.descriptors.RemoveAll(ready);
  std::list<Task> taken;
  for (auto next = waiters.tasks.end(); next != waiters.tasks.begin() && !ready.empty();) {
    const auto entry = --next;
    const int descriptor = entry->socket();
    if (!ready.Has(descriptor)) continue;
    const bool error =
        failed.Has(descriptor) || (entry->selectop() == kSelectConnect && HasConnectFailed(descriptor));
    if (error) entry->selectop() = kSelectError;
    ++next;  // `entry` leaves the list
    taken.splice(taken.begin(), waiters.tasks, entry);
    if (!waiters.shared) ready.Remove(descriptor);
  }
  out.splice(out.end(), taken);
}

template <class Task>
template <class Condition>
void waiting_tasks<Task>::Take(Waiters& waiters, std::list<Task>& out, Condition condition) {
  for (auto next = waiters.tasks.begin(); next != waiters.tasks.end();) {
    const auto entry = next++;
    if (condition(*entry)) out.splice(out.end(), waiters.tasks, entry);
  }
}

template class waiting_tasks<CTCPTask>;
