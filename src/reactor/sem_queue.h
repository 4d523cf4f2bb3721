// A first-in, first-out queue of tasks without a limit.
#ifndef GX_REACTOR_SEM_QUEUE_H
#define GX_REACTOR_SEM_QUEUE_H

#include <cstddef>
#include <list>

#include "base/mutex_lock.h"
#include "reactor/tcp_task.h"

// States: closed (at first, and after close), open. Nothing here blocks.
// Threads: any.
// Ownership: one reference per queued task. The queue lets go of it after mutex_ has been released, so the
// destructor of a task may call back into the queue.
template <class T>
class sem_queue {
 public:
  // Accepts tasks from now on. False: it was open, and keeps what it holds. The argument is not used.
  bool open(int);
  // False: closed, and the task is not kept. To the front: it overtakes all others.
  bool push(const T& task, bool to_back);
  // Moves the front task into `out`. False: closed or empty, and `out` is as it was.
  bool peek(T& out);
  // These two move entries instead of copying tasks, so they need no memory and never throw.
  // Entries from the front, `most` of them at most.
  std::list<T> take(std::size_t most);
  // All entries of `tasks` to the back. False: closed, and the tasks are dropped.
  bool append(std::list<T>& tasks);
  // Refuses tasks from now on and drops what is queued. False: it was closed.
  bool close();

 private:
  CStdMutex mutex_;
  std::list<T> items_ GUARDED_BY(mutex_);  // empty while closed
  bool opened_ GUARDED_BY(mutex_) = false;
};

extern template class sem_queue<CTCPTask>;

#endif  // GX_REACTOR_SEM_QUEUE_H
