// A re-entrant ownership token. An owner is any number the callers agree on: a thread id, an object's identity.
#ifndef GX_STREAM_THREAD_SAFTY_H
#define GX_STREAM_THREAD_SAFTY_H

#include "base/mutex_lock.h"

class IThreadSafty {
 public:
  virtual ~IThreadSafty() = default;
  // The last owner, also after it has given the token up.
  virtual long Owner() const = 0;
  // True: `id` owns the token now (once more). False: somebody else does. Never waits.
  virtual bool Monopolize(long id) = 0;
  // Undoes one Monopolize.
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
  long count_ GUARDED_BY(mutex_) = 0;  // how often the owner has it
  long owner_ GUARDED_BY(mutex_) = 0;
};

#endif  // GX_STREAM_THREAD_SAFTY_H
