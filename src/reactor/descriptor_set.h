// A set of descriptors as select takes it.
#ifndef GX_REACTOR_DESCRIPTOR_SET_H
#define GX_REACTOR_DESCRIPTOR_SET_H

#include <sys/select.h>

// True when a set has a place for this descriptor. Select cannot wait for any other.
inline bool IsSelectable(int descriptor) { return descriptor >= 0 && descriptor < FD_SETSIZE; }

// An fd_set that never writes or reads past its end: a descriptor without a place is not added and not found.
class DescriptorSet {
 public:
  DescriptorSet() { FD_ZERO(&bits_); }

  void Add(int descriptor) {
    if (IsSelectable(descriptor)) FD_SET(descriptor, &bits_);
  }
  bool Has(int descriptor) const { return IsSelectable(descriptor) && FD_ISSET(descriptor, &bits_); }
  fd_set* get() { return &bits_; }

 private:
  fd_set bits_;
};

#endif  // GX_REACTOR_DESCRIPTOR_SET_H
