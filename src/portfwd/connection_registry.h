// The connections of a client by their ids.
#ifndef GX_PORTFWD_CONNECTION_REGISTRY_H
#define GX_PORTFWD_CONNECTION_REGISTRY_H

#include <cstdint>
#include <map>

#include "base/mutex_lock.h"
#include "gxmod/reference.h"
#include "portfwd/connection_handler.h"

// States: closed (at first, and after TakeAll), open. Threads: any. References are dropped outside the lock.
class CConnectionRegistry {
 public:
  using Connections = std::map<std::uint32_t, CRefObj<MyHandler>>;

  // `lock` is the client's; it outlives the registry.
  explicit CConnectionRegistry(CMutexLock& lock) : lock_(lock) {}

  // Ids count for the whole process, so that those of several clients never meet on one stream; the first is 1.
  // After 2^32 connections they come round.
  static std::uint32_t NextId();

  void Open();
  // Keeps a reference. An older connection with the same id is replaced. False: closed, and nothing is kept.
  bool Add(const CRefObj<MyHandler>& connection);
  // Empty: there is none.
  CRefObj<MyHandler> Find(std::uint32_t id);
  // Some connection that owes the far side a Close. Reader's thread.
  CRefObj<MyHandler> FindOwing();
  // Forgets the connection, unless another one has its id by now.
  void Remove(const MyHandler& connection);
  // Closes the registry; the connections are the caller's.
  Connections TakeAll();

 private:
  CMutexLock& lock_;
  bool open_ GUARDED_BY(lock_) = false;
  Connections connections_ GUARDED_BY(lock_);
};

#endif  // GX_PORTFWD_CONNECTION_REGISTRY_H
