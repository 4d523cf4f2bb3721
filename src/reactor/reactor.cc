#include "reactor/reactor.h"

#include <cassert>
#include <new>

#include "runtime/gxmod_runtime.h"

template <class Tracker>
bool CReactor_T<Tracker>::Run(unsigned long threads) {
  if (IsRunning()) return true;
  assert(threads_.empty());
  stopping_.store(false, std::memory_order_release);
  this->Start(threads);  // does nothing when the tracker is already running
  try {
    while (threads_.size() < threads) {
      // Add the thread to the list before it runs, so that Stop finds every thread.
      threads_.push_back(std::make_unique<CWorkThread>(this));
      if (threads_.back()->Run()) continue;
      threads_.pop_back();
      break;
    }
  } catch (const std::bad_alloc&) {
  }
  if (threads_.empty()) this->Shutdown();  // there is no thread to serve its tasks
  running_.store(!threads_.empty(), std::memory_order_release);
  return IsRunning();
}

template <class Tracker>
bool CReactor_T<Tracker>::Stop() {
  if (!IsRunning()) return true;
  stopping_.store(true, std::memory_order_release);
  this->Shutdown();
  bool all_ended = true;
  for (; !threads_.empty(); threads_.pop_front()) {
    all_ended = threads_.front()->Stop() && all_ended;
  }
  running_.store(false, std::memory_order_release);
  return all_ended;
}

template <class Tracker>
bool CReactor_T<Tracker>::DoWork() {
  if (stopping_.load(std::memory_order_acquire)) return false;
  for (;;) {
    try {
      CTCPTask task;
      if (!NextTask(task)) return false;
      if (task) task->Done();
    } catch (...) {
      // An exception from one task must not end the other connections.
      GXModLog(kGXModLogError, "[reactor] a task ended with an exception");
    }
  }
}

template <class Tracker>
bool CReactor_T<Tracker>::NextTask(CTCPTask& task) {
  CStdLock lock(turn_);
  return this->GetComeleted(task);
}

template class CReactor_T<tcp_select_tracker>;
