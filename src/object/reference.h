// The shared implementation of IReference.
#ifndef GX_OBJECT_REFERENCE_H
#define GX_OBJECT_REFERENCE_H

#include <atomic>
#include <cstdint>

#include "gxmod/reference.h"

// A new object has count 0: whoever creates it takes the first reference, in practice by putting it into a
// CRefObj. The last Release deletes the object, once the hold count has fallen to zero as well. A class that
// shows an interface derived from IReference inherits CReference privately and overrides both operations, so
// that either base reaches the same count (see GX_FORWARD_REFERENCE). Threads: any; every change is one atomic
// addition.
class CReference : public IReference {
 public:
  CReference() = default;
  CReference(const CReference&) = delete;
  CReference& operator=(const CReference&) = delete;

  std::int64_t AddRef() override;
  std::int64_t Release() override;

 protected:
  ~CReference() override = default;

  // An aggregating owner may raise the hold count above 1 before the last Release: the object then survives it
  // with count 0. Both return the count after the change.
  std::int64_t AddHold();
  std::int64_t DropHold();

 private:
  std::atomic<std::int64_t> references_{0};
  std::atomic<std::int64_t> holds_{1};
};

// Public AddRef and Release of a class that counts with CReference.
#define GX_FORWARD_REFERENCE()                                      \
  std::int64_t AddRef() override { return CReference::AddRef(); }   \
  std::int64_t Release() override { return CReference::Release(); } \
  static_assert(true, "a semicolon ends the macro")

#endif  // GX_OBJECT_REFERENCE_H
