#include "reactor/sem_queue.h"

#include <iterator>
#include <utility>

template <class T>
bool sem_queue<T>::open(int) {
  CStdLock lock(mutex_);
  return !std::exchange(opened_, true);
}

template <class T>
bool sem_queue<T>::push(const T& task, bool to_back) {
  CStdLock lock(mutex_);
  if (!opened_) return false;
  items_.insert(to_back ? items_.end() : items_.begin(), task);
  return true;
}

template <class T>
bool sem_queue<T>::peek(T& out) {
  T front;
  {
    CStdLock lock(mutex_);
    if (items_.empty()) return false;
    front = std::move(items_.front());
    items_.pop_front();
  }
  out = std::move(front);
  return true;
}

template <class T>
std::list<T> sem_queue<T>::take(std::size_t most) {
  std::list<T> taken;
  CStdLock lock(mutex_);
  const auto end =
      most < items_.size() ? std::next(items_.begin(), static_cast<std::ptrdiff_t>(most)) : items_.end();
  taken.splice(taken.end(), items_, items_.begin(), end);
  return taken;
}

template <class T>
bool sem_queue<T>::append(std::list<T>& tasks) {
  std::list<T> dropped;  // destroyed after the lock is released
  CStdLock lock(mutex_);
  std::list<T>& target = opened_ ? items_ : dropped;
  target.splice(target.end(), tasks);
  return opened_;
}

template <class T>
bool sem_queue<T>::close() {
  std::list<T> dropped;  // destroyed after the lock is released
  CStdLock lock(mutex_);
  items_.swap(dropped);
  return std::exchange(opened_, false);
}

template class sem_queue<CTCPTask>;
