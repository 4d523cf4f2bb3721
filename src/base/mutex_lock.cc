#include "base/mutex_lock.h"

CMutexLock::CMutexLock() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

CMutexLock::~CMutexLock() { pthread_mutex_destroy(&mutex_); }

bool CMutexLock::Lock() {
  pthread_mutex_lock(&mutex_);
  return true;
}

bool CMutexLock::Unlock() {
  pthread_mutex_unlock(&mutex_);
  return true;
}
