// A set of descriptors for select.
#ifndef GX_REACTOR_DESCRIPTOR_SET_H
#define GX_REACTOR_DESCRIPTOR_SET_H

#include <sys/select.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

// True when an fd_set can hold this descriptor. select cannot wait for others.
inline bool IsSelectable(int descriptor) { return descriptor >= 0 && descriptor < FD_SETSIZE; }

// An fd_set that never reads or writes past its end: it ignores descriptors that do not fit.
class DescriptorSet {
 public:
  DescriptorSet() { FD_ZERO(&bits_); }

  void Add(int descriptor) {
    if (IsSelectable(descriptor)) FD_SET(descriptor, &bits_);
  }
  void Remove(int descriptor) {
    if (IsSelectable(descriptor)) FD_CLR(descriptor, &bits_);
  }
  void AddAll(const DescriptorSet& other) {
    Combine(other, [](std::uint64_t mine, std::uint64_t theirs) { return mine | theirs; });
  }
  void RemoveAll(const DescriptorSet& other) {
    Combine(other, [](std::uint64_t mine, std::uint64_t theirs) { return mine & ~theirs; });
  }
  void KeepOnly(const DescriptorSet& other) {
    Combine(other, [](std::uint64_t mine, std::uint64_t theirs) { return mine & theirs; });
  }
  // Calls `predicate` with each descriptor, lowest first, until one call returns false; returns false then.
  template <class Predicate>
  bool AllOf(Predicate predicate) const {
    const Words words = std::bit_cast<Words>(bits_);
    for (int i = 0; i < FD_SETSIZE; ++i) {
      if (words[static_cast<std::size_t>(i) / 64] == 0) {
        i += 63;  // all descriptors of a word have their bits in the same eight bytes
      } else if (Has(i) && !predicate(i)) {
        return false;
      }
    }
    return true;
  }
  bool empty() const { return std::bit_cast<Words>(bits_) == Words{}; }
  bool Has(int descriptor) const { return IsSelectable(descriptor) && FD_ISSET(descriptor, &bits_); }
  fd_set* get() { return &bits_; }

 private:
  // The set as 64-bit words, so that set operations take few steps.
  using Words = std::array<std::uint64_t, sizeof(fd_set) / sizeof(std::uint64_t)>;

  template <class Operation>
  void Combine(const DescriptorSet& other, Operation operation) {
    Words mine = std::bit_cast<Words>(bits_);
    const Words theirs = std::bit_cast<Words>(other.bits_);
    for (std::size_t i = 0; i < mine.size(); ++i) mine[i] = operation(mine[i], theirs[i]);
    bits_ = std::bit_cast<fd_set>(mine);
  }

  fd_set bits_;
};

#endif  // GX_REACTOR_DESCRIPTOR_SET_H
