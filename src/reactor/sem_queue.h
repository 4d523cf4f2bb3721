// An unbounded first-in, first-out queue of tasks.
#ifndef GX_REACTOR_SEM_QUEUE_H
#define GX_REACTOR_SEM_QUEUE_H

#include <cstddef>
#include <list>

#include "base/mutex_lock.h"
#include "reactor/tcp_task.h"

// States: closed (initially, and after close), open. All calls return at once.
// Threads: any.
// Ownership: one reference per queued task, dropped after mutex_ is released, so a task's destructor may call
// back into the queue.
template <class T>
class sem_queue {
 public:
  // Accepts tasks from now on. Returns false when already open; the queued tasks stay. The argument is ignored.
  bool open(int);
  // Adds the task at the back, or at the front, ahead of all others. Returns false when closed; the task is
  // then dropped.
  bool push(const T& task, bool to_back);
  // Moves the front task into `out`. Returns false, with `out` unchanged, when closed or empty.
  bool peek(T& out);
  // take and append move list entries instead of copying tasks, so they allocate no memory and never throw.
  // take removes up to `most` entries from the front.
  std::list<T> take(std::size_t most);
  // Moves all entries of `tasks` to the back. Returns false when closed; the tasks are then dropped.
  bool append(std::list<T>& tasks);
  // Refuses tasks from now on and drops all queued ones. Returns false when already closed.
  bool close();

 private:
  CStdMutex mutex_;
  std::list<T> items_ GUARDED_BY(mutex_);  // empty while closed
  bool opened_ GUARDED_BY(mutex_) = false;
};

extern template class sem_queue<CTCPTask>;

#endif  // GX_REACTOR_SEM_QUEUE_H
