#include "portfwd/channel_registry.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace {

std::uint32_t NextChannelIndex() {
  static std::atomic<std::uint32_t> s_index{0};
  return ++s_index;
}

}  // namespace

void CChannelRegistry::Open() {
  CAutoLock lock(lock_);
  open_ = true;
}

bool CChannelRegistry::Add(const Channels& added) {
  CAutoLock lock(lock_);
  if (!open_) return false;
  channels_.reserve(channels_.size() + added.size());
  for (const auto& channel : added) {
    channel->put_Index(NextChannelIndex());
    channels_.push_back(channel);
  }
  return true;
}

CRefObj<CChannelRaw> CChannelRegistry::Find(std::uint32_t index) {
  CAutoLock lock(lock_);
  const auto found = std::find_if(channels_.begin(), channels_.end(),
                                  [index](const auto& channel) { return channel->get_Index() == index; });
  return found != channels_.end() ? *found : nullptr;
}

bool CChannelRegistry::Remove(const CChannelRaw& channel) {
  CAutoLock lock(lock_);
  const auto found = std::find_if(channels_.begin(), channels_.end(),
                                  [&channel](const auto& other) { return other.get() == &channel; });
  if (found == channels_.end()) return false;
  channels_.erase(found);
  return true;
}

CRefObj<CChannelRaw> CChannelRegistry::At(std::size_t position) {
  CAutoLock lock(lock_);
  return position < channels_.size() ? channels_[position] : nullptr;
}

std::size_t CChannelRegistry::Count() {
  CAutoLock lock(lock_);
  return channels_.size();
}

std::vector<ChannelRecord> CChannelRegistry::Records() {
  std::vector<ChannelRecord> records;
  CAutoLock lock(lock_);
  for (const auto& channel : channels_) {
    CChannelRaw::Texts texts = channel->GetTexts();
    records.push_back({std::move(texts.name), std::move(texts.protocol), std::move(texts.remote_address)});
  }
  return records;
}

CChannelRegistry::Channels CChannelRegistry::TakeAll() {
  Channels taken;
  CAutoLock lock(lock_);
  open_ = false;
  taken.swap(channels_);
  return taken;
}
