// The module's mutexes.
#ifndef GX_BASE_MUTEX_LOCK_H
#define GX_BASE_MUTEX_LOCK_H

#include <pthread.h>

#include <mutex>

#include "base/thread_annotations.h"

class ILockItem {
 public:
  virtual bool Lock() = 0;
  virtual bool Unlock() = 0;
  virtual ~ILockItem() = default;
};

// An error-checking, non-recursive mutex. Lock and Unlock always return true, so a second Lock on the same
// thread goes unnoticed, and the first Unlock then frees the mutex: code must never lock it twice. Debug builds
// assert that.
class CAPABILITY("mutex") CMutexLock : public ILockItem {
 public:
  CMutexLock();
  CMutexLock(const CMutexLock&) = delete;
  CMutexLock& operator=(const CMutexLock&) = delete;
  ~CMutexLock() override;

  bool Lock() override ACQUIRE();
  bool Unlock() override RELEASE();

 private:
  pthread_mutex_t mutex_;
};

// A std::mutex that Clang's thread-safety analysis knows. Use native() with std::condition_variable.
class CAPABILITY("mutex") CStdMutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  std::mutex& native() { return mutex_; }

 private:
  std::mutex mutex_;
};

// Holds a lock until the end of the scope.
class SCOPED_CAPABILITY CAutoLock {
 public:
  explicit CAutoLock(CMutexLock& lock) ACQUIRE(lock) : lock_(lock) { lock_.Lock(); }
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;
  ~CAutoLock() RELEASE() { lock_.Unlock(); }

 private:
  CMutexLock& lock_;
};

class SCOPED_CAPABILITY CStdLock {
 public:
  explicit CStdLock(CStdMutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  CStdLock(const CStdLock&) = delete;
  CStdLock& operator=(const CStdLock&) = delete;
  ~CStdLock() RELEASE() { mutex_.unlock(); }

 private:
  CStdMutex& mutex_;
};

#endif  // GX_BASE_MUTEX_LOCK_H
