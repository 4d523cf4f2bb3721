// The channels of a client, in the order of creation.
#ifndef GX_PORTFWD_CHANNEL_REGISTRY_H
#define GX_PORTFWD_CHANNEL_REGISTRY_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/mutex_lock.h"
#include "gxmod/reference.h"
#include "portfwd/channel.h"
#include "portfwd/channel_list.h"

// States: closed (initially, and after TakeAll), open. Threads: any. References are dropped outside the lock.
class CChannelRegistry {
 public:
  using Channels = std::vector<CRefObj<CChannelRaw>>;

  // `lock` belongs to the client and outlives the registry.
  explicit CChannelRegistry(CMutexLock& lock) : lock_(lock) {}

  void Open();
  // Numbers the channels (the first index in the process is 1) and appends all of them, or none when memory
  // runs out. Returns false when closed.
  bool Add(const Channels& added);
  // The channel with that index; empty when there is none.
  CRefObj<CChannelRaw> Find(std::uint32_t index);
  // Returns false when the channel is not in the list. The caller holds a reference to it.
  bool Remove(const CChannelRaw& channel);
  // The channel at that position of the list; empty beyond the end.
  CRefObj<CChannelRaw> At(std::size_t position);
  std::size_t Count();
  // The records that are sent to the far side.
  std::vector<ChannelRecord> Records();
  // Closes the registry and passes the channels to the caller.
  Channels TakeAll();

 private:
  CMutexLock& lock_;
  bool open_ GUARDED_BY(lock_) = false;
  Channels channels_ GUARDED_BY(lock_);
};

#endif  // GX_PORTFWD_CHANNEL_REGISTRY_H
