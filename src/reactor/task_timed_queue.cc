#include "reactor/task_timed_queue.h"

#include <algorithm>
#include <utility>

void task_timed_queue::push(CRefObj<ITask> task, unsigned long long interval, bool once) {
  const auto item = std::make_shared<timer_item>(timer_item{0, interval, 0, once, false, std::move(task), {}});
  CStdLock lock(mutex_);
  // Reserve first: a timer that is only in the index would never fire, and one only in the heap could not be
  // cancelled.
  if (heap_.size() == heap_.capacity()) heap_.reserve(2 * heap_.size() + 1);
  item->entry = index_.emplace(item->task.get(), item);
  Arm(item);
}

void task_timed_queue::erase(CRefObj<ITask> task) {
  std::vector<CRefObj<ITask>> released;  // destroyed after the lock is released
  CStdLock lock(mutex_);
  const auto [first, last] = index_.equal_range(task.get());
  for (auto entry = first; entry != last; ++entry) {
    released.push_back(std::move(entry->second->task));
    entry->second->cancelled = true;
  }
  index_.erase(first, last);
}

bool task_timed_queue::pop(CRefObj<ITask>& out) {
  CRefObj<ITask> due;
  {
    CStdLock lock(mutex_);
    while (!heap_.empty() && heap_.front()->cancelled) TakeFront();
    if (heap_.empty() || heap_.front()->due_time > now_()) return false;
    const ItemPtr item = TakeFront();
    if (item->once) {
      index_.erase(item->entry);
      due = std::move(item->task);
    } else {
      due = item->task;
      Arm(item);
    }
  }
  out = std::move(due);
  return true;
}

unsigned int task_timed_queue::next_pop_time() {
  CStdLock lock(mutex_);
  if (heap_.empty()) return kNoTimer;
  const std::uint64_t now = now_();
  const std::uint64_t due = heap_.front()->due_time;
  // Keep a timer more than 49 days away below kNoTimer.
  return due < now ? 0 : static_cast<unsigned int>(std::min<std::uint64_t>(due - now, kNoTimer - 1));
}

void task_timed_queue::clean() {
  std::vector<ItemPtr> heap;  // both are destroyed after the lock is released
  Index index;
  CStdLock lock(mutex_);
  heap_.swap(heap);
  index_.swap(index);
}

void task_timed_queue::Arm(ItemPtr item) {
  item->sequence = next_sequence_++;
  item->due_time = now_() + item->interval;
  heap_.push_back(std::move(item));
  std::push_heap(heap_.begin(), heap_.end(), timer_item_less());
}

task_timed_queue::ItemPtr task_timed_queue::TakeFront() {
  std::pop_heap(heap_.begin(), heap_.end(), timer_item_less());
  ItemPtr item = std::move(heap_.back());
  heap_.pop_back();
  return item;
}
