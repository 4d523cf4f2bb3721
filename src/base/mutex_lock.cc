#include "base/mutex_lock.h"

#include <cassert>

CMutexLock::CMutexLock() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

CMutexLock::~CMutexLock() { pthread_mutex_destroy(&mutex_); }

bool CMutexLock::Lock() {
  [[maybe_unused]] const int error = pthread_mutex_lock(&mutex_);
  assert(error == 0 && "taken twice");
  return true;
}

bool CMutexLock::Unlock() {
  [[maybe_unused]] const int error = pthread_mutex_unlock(&mutex_);
  assert(error == 0 && "not taken by this thread");
  return true;
}
