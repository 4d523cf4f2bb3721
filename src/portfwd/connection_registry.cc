#include "portfwd/connection_registry.h"

#include <algorithm>
#include <atomic>
#include <utility>

std::uint32_t CConnectionRegistry::NextId() {
  static std::atomic<std::uint64_t> g_index{0};
  return static_cast<std::uint32_t>(++g_index);
}

void CConnectionRegistry::Open() {
  CAutoLock lock(lock_);
  open_ = true;
}

bool CConnectionRegistry::Add(const CRefObj<MyHandler>& connection) {
  CRefObj<MyHandler> replaced;  // may be the last reference: dropped after the lock is released
  CAutoLock lock(lock_);
  if (!open_) return false;
  replaced = std::exchange(connections_[connection->get_Id()], connection);
  return true;
}

CRefObj<MyHandler> CConnectionRegistry::Find(std::uint32_t id) {
  CAutoLock lock(lock_);
  const auto found = connections_.find(id);
  return found != connections_.end() ? found->second : nullptr;
}

CRefObj<MyHandler> CConnectionRegistry::FindOwing() {
  CAutoLock lock(lock_);
  const auto found = std::find_if(connections_.begin(), connections_.end(),
                                  [](const auto& entry) { return entry.second->OwesClose(); });
  return found != connections_.end() ? found->second : nullptr;
}

void CConnectionRegistry::Remove(const MyHandler& connection) {
  Connections::node_type removed;  // may be the last reference: dropped after the lock is released
  CAutoLock lock(lock_);
  const auto found = connections_.find(connection.get_Id());
  if (found != connections_.end() && found->second.get() == &connection) removed = connections_.extract(found);
}

CConnectionRegistry::Connections CConnectionRegistry::TakeAll() {
  Connections taken;
  CAutoLock lock(lock_);
  open_ = false;
  taken.swap(connections_);
  return taken;
}
