// Tells select which of many descriptors to look at.
#ifndef GX_REACTOR_EPOLL_SET_H
#define GX_REACTOR_EPOLL_SET_H

#include <cstddef>
#include <cstdint>

#include "base/scoped_descriptor.h"
#include "reactor/descriptor_set.h"

// A select that sleeps over hundreds of sockets makes the kernel add and remove a wait entry for each. Epoll
// keeps these entries. Here it only names descriptors with news; select decides what they are ready for, so a
// pass that looks at these finds the same as one that looks at all, in the same order. There is one exception:
// epoll tells nothing of a descriptor that is closed while somebody waits for it. A caller that gets no name
// therefore looks at all.
//
// Each descriptor is armed: epoll then names it once, also when its task has gone. A number may soon stand for
// another socket, which epoll does not know yet or knows under the same number as the old one, so Disarm is
// called for each task that starts to wait. Nothing is named while one cannot be armed: a bad descriptor, a
// file that epoll refuses, want of memory.
//
// States: closed (initially, and always where the system has no epoll), open. Threads: one at a time.
class EpollSet {
 public:
  // Opens when many tasks wait, and closes when few do. Returns true when open.
  bool Fit(std::size_t waiting);
  void Close();

  // The next Wait arms the descriptor again if it is in a set.
  void Disarm(int descriptor) { armed_.Remove(descriptor); }

  // Waits for news of a descriptor in one of the sets. Returns the descriptors with news, perhaps some that are
  // in no set; none when the time is up and after an error.
  DescriptorSet Wait(const DescriptorSet& read, const DescriptorSet& write, unsigned int wait_ms);

 private:
  bool ArmAll(const DescriptorSet& read, const DescriptorSet& write);
  bool Arm(int descriptor, std::uint32_t events);

  gxbase::ScopedDescriptor epoll_;
  DescriptorSet armed_;
};

#endif  // GX_REACTOR_EPOLL_SET_H
