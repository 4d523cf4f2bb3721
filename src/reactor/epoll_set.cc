#include "reactor/epoll_set.h"

#if defined(__linux__)

#include <errno.h>
#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <climits>

namespace {

constexpr std::size_t kMany = 64;  // select alone is cheap up to here
constexpr std::size_t kFew = 32;   // lower, so that it is not opened and closed all the time

}  // namespace

bool EpollSet::Fit(std::size_t waiting) {
  if (epoll_) {
    if (waiting < kFew) Close();
  } else if (waiting > kMany) {
    epoll_ = gxbase::ScopedDescriptor(epoll_create1(EPOLL_CLOEXEC));
  }
  return static_cast<bool>(epoll_);
}

DescriptorSet EpollSet::Wait(const DescriptorSet& read, const DescriptorSet& write, unsigned int wait_ms) {
  DescriptorSet named;
  if (wait_ms == 0 || !ArmAll(read, write)) return named;
  std::array<epoll_event, FD_SETSIZE> news;
  const int limit = static_cast<int>(std::min<unsigned int>(wait_ms, INT_MAX));
  const int count = epoll_wait(epoll_.get(), news.data(), static_cast<int>(news.size()), limit);
  for (int i = 0; i < count; ++i) named.Add(news[static_cast<std::size_t>(i)].data.fd);
  armed_.RemoveAll(named);
  return named;
}

bool EpollSet::ArmAll(const DescriptorSet& read, const DescriptorSet& write) {
  DescriptorSet unarmed = read;
  unarmed.AddAll(write);
  unarmed.RemoveAll(armed_);
  return unarmed.AllOf([&](int descriptor) {
    const std::uint32_t in = read.Has(descriptor) ? EPOLLIN : 0U, out = write.Has(descriptor) ? EPOLLOUT : 0U;
    if (!Arm(descriptor, in | out | EPOLLPRI | EPOLLONESHOT)) return false;
    armed_.Add(descriptor);
    return true;
  });
}

// The kernel may not know the descriptor: it is new, or its number belonged to a socket that was closed.
bool EpollSet::Arm(int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, descriptor, &event) == 0) return true;
  return errno == ENOENT && epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

#else

bool EpollSet::Fit(std::size_t) { return false; }
DescriptorSet EpollSet::Wait(const DescriptorSet&, const DescriptorSet&, unsigned int) { return {}; }

#endif

void EpollSet::Close() {
  epoll_.Close();
  armed_ = {};
}
