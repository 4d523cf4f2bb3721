// One instance of T per loaded module, built on first use and destroyed when the module is unloaded.
#ifndef GX_BASE_SINGLETON_H
#define GX_BASE_SINGLETON_H

#include <atomic>

#include "base/mutex_lock.h"

template <class T>
class CSingleton_T {
 public:
  // Never null. Threads: any. Only calls before the instance exists take the lock.
  static T* Instance() {
    T* instance = m_pInstance.load(std::memory_order_acquire);
    return instance != nullptr ? instance : Build();
  }

 private:
  static T* Build() {
    CAutoLock lock(m_instanceMutex);
    static T instance;
    m_pInstance.store(&instance, std::memory_order_release);
    return &instance;
  }

  inline static CMutexLock m_instanceMutex;
  inline static std::atomic<T*> m_pInstance{nullptr};
};

#endif  // GX_BASE_SINGLETON_H
