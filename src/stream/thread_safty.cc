#include "stream/thread_safty.h"

long IThreadSaftyImpl::Owner() const {
  CStdLock lock(mutex_);
  return owner_;
}

bool IThreadSaftyImpl::Monopolize(long id) {
  CStdLock lock(mutex_);
  if (count_ != 0 && owner_ != id) return false;
  owner_ = id;
  ++count_;
  return true;
}

void IThreadSaftyImpl::Relinquish() {
  CStdLock lock(mutex_);
  --count_;
}
