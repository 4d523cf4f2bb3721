// Reference counting for the host's objects that the module holds.
#ifndef GX_SSH_COUNTED_H
#define GX_SSH_COUNTED_H

#include <atomic>
#include <cstdint>

namespace gxtool {

// Implements the reference count of `Interface`, one of the interfaces that a host implements. The count starts
// at 0: create the object with new and put it into a CRefObj at once; the last Release deletes it. Threads:
// any.
template <class Interface>
class Counted : public Interface {
 public:
  Counted() = default;
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

  std::int64_t AddRef() final { return count_.fetch_add(1) + 1; }
  std::int64_t Release() final {
    const std::int64_t left = count_.fetch_sub(1) - 1;
    if (left == 0) delete this;
    return left;
  }

 protected:
  ~Counted() override = default;

 private:
  std::atomic<std::int64_t> count_{0};
};

}  // namespace gxtool

#endif  // GX_SSH_COUNTED_H
