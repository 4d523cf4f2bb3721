// The connections of a client, by id.
#ifndef GX_PORTFWD_CONNECTION_REGISTRY_H
#define GX_PORTFWD_CONNECTION_REGISTRY_H

#include <cstdint>
#include <map>

#include "base/mutex_lock.h"
#include "gxmod/reference.h"
#include "portfwd/connection_handler.h"

// States: closed (initially, and after TakeAll), open. Threads: any. References are dropped outside the lock.
class CConnectionRegistry {
 public:
  using Connections = std::map<std::uint32_t, CRefObj<MyHandler>>;

  // `lock` belongs to the client and outlives the registry.
  explicit CConnectionRegistry(CMutexLock& lock) : lock_(lock) {}

  // Ids are unique in the process, so that clients can share a stream; the first is 1. They wrap around after
  // 2^32 connections.
  static std::uint32_t NextId();

  void Open();
  // Stores a reference and replaces an older connection with the same id. Returns false when closed; the
  // reference is then dropped.
  bool Add(const CRefObj<MyHandler>& connection);
  // Empty when there is none.
  CRefObj<MyHandler> Find(std::uint32_t id);
  // Returns a connection that still owes the far side a Close. Reader's thread.
  CRefObj<MyHandler> FindOwing();
  // Removes the connection, unless another one has its id already.
  void Remove(const MyHandler& connection);
  // Closes the registry and passes the connections to the caller.
  Connections TakeAll();

 private:
  CMutexLock& lock_;
  bool open_ GUARDED_BY(lock_) = false;
  Connections connections_ GUARDED_BY(lock_);
};

#endif  // GX_PORTFWD_CONNECTION_REGISTRY_H
