// The channels of a client in the order of their creation.
#ifndef GX_PORTFWD_CHANNEL_REGISTRY_H
#define GX_PORTFWD_CHANNEL_REGISTRY_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/mutex_lock.h"
#include "gxmod/reference.h"
#include "portfwd/channel.h"
#include "portfwd/channel_list.h"

// States: closed (at first, and after TakeAll), open. Threads: any. References are dropped outside the lock.
class CChannelRegistry {
 public:
  using Channels = std::vector<CRefObj<CChannelRaw>>;

  // `lock` is the client's; it outlives the registry.
  explicit CChannelRegistry(CMutexLock& lock) : lock_(lock) {}

  void Open();
  // Numbers the channels (the first index of the process is 1) and appends them: all or, when there is no
  // memory, none. False: closed.
  bool Add(const Channels& added);
  // The channel with that index; empty: there is none.
  CRefObj<CChannelRaw> Find(std::uint32_t index);
  // False: it is not in the list. The caller holds a reference.
  bool Remove(const CChannelRaw& channel);
  // At that position of the list; empty beyond its end.
  CRefObj<CChannelRaw> At(std::size_t position);
  std::size_t Count();
  // As the far side is told.
  std::vector<ChannelRecord> Records();
  // Closes the registry; the channels are the caller's.
  Channels TakeAll();

 private:
  CMutexLock& lock_;
  bool open_ GUARDED_BY(lock_) = false;
  Channels channels_ GUARDED_BY(lock_);
};

#endif  // GX_PORTFWD_CHANNEL_REGISTRY_H
