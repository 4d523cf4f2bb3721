// The shared implementation of IReference.
#ifndef GX_OBJECT_CREFERENCE_H
#define GX_OBJECT_CREFERENCE_H

#include <atomic>
#include <cstdint>

#include "gxmod/reference.h"

// A new object has count 0; its creator takes the first reference by putting it into a CRefObj. The last
// Release drops the initial hold, too, and deletes the object once the hold count is 0. A class with an
// interface derived from IReference inherits CReference privately and overrides AddRef and Release, so that
// both bases use the same count (see GX_FORWARD_REFERENCE). Threads: any; every change is one atomic addition.
class CReference : public IReference {
 public:
  CReference() = default;
  CReference(const CReference&) = delete;
  CReference& operator=(const CReference&) = delete;

  std::int64_t AddRef() override;
  std::int64_t Release() override;

 protected:
  ~CReference() override = default;

  // An aggregating owner may add a hold before the last Release, to keep the object alive with count 0. Both
  // return the new count.
  std::int64_t AddHold();
  std::int64_t DropHold();

 private:
  std::atomic<std::int64_t> references_{0};
  std::atomic<std::int64_t> holds_{1};
};

// Public AddRef and Release for a class that counts with CReference.
#define GX_FORWARD_REFERENCE()                                      \
  std::int64_t AddRef() override { return CReference::AddRef(); }   \
  std::int64_t Release() override { return CReference::Release(); } \
  static_assert(true, "a semicolon ends the macro")

#endif  // GX_OBJECT_CREFERENCE_H
