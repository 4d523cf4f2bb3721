// Timer tasks and the service that fires them.
#ifndef GX_REACTOR_TIMER_H
#define GX_REACTOR_TIMER_H

#include "gxmod/reference.h"

class ITask : public virtual IReference {
 public:
  virtual void MarkedForDeletion() = 0;
  // Runs on the reactor's work thread when the timer fires.
  virtual void Done() = 0;
};

// Threads: any.
class ITimer {
 public:
  virtual ~ITimer() = default;
  // Arms a timer that holds a reference to `task`. With `once` it fires once; otherwise every `interval_ms`. A
  // task armed twice has two timers. Always true.
  virtual bool SetTimer(ITask* task, unsigned long long interval_ms, bool once) = 0;
  // Cancels all timers of that task. Always true.
  virtual bool KillTimer(ITask* task) = 0;
};

#endif  // GX_REACTOR_TIMER_H
