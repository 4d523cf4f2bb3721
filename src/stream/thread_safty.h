// A re-entrant ownership token. An owner is any number that the callers agree on: a thread id, an object's
// identity.
#ifndef GX_STREAM_THREAD_SAFTY_H
#define GX_STREAM_THREAD_SAFTY_H

#include "base/mutex_lock.h"

class IThreadSafty {
 public:
  virtual ~IThreadSafty() = default;
  // The current owner, or the last one.
  virtual long Owner() const = 0;
  // Returns true when `id` now owns the token (possibly once more), false when another owner has it. Never
  // waits.
  virtual bool Monopolize(long id) = 0;
  // Reverts one Monopolize.
  virtual void Relinquish() = 0;
};

// Threads: any.
class IThreadSaftyImpl : public IThreadSafty {
 public:
  long Owner() const override;
  bool Monopolize(long id) override;
  void Relinquish() override;

 private:
  mutable CStdMutex mutex_;
  long count_ GUARDED_BY(mutex_) = 0;  // nesting depth of the owner
  long owner_ GUARDED_BY(mutex_) = 0;
};

#endif  // GX_STREAM_THREAD_SAFTY_H
