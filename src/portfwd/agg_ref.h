// Counting for an object that shares its life with another one.
#ifndef GX_PORTFWD_AGG_REF_H
#define GX_PORTFWD_AGG_REF_H

#include <cstdint>

#include "object/reference.h"

// Whoever holds this object holds the outer one as well; the outer one holds this object through
// InternalReference, which does not count back, so the two make no circle. This object goes when neither its
// holders nor the outer object hold it any more.
template <class Outer>
class CAggRef_T : private CReference {
 public:
  std::int64_t AddRef() override {
    outer_->AddRef();
    return CReference::AddRef();
  }

  std::int64_t Release() override {
    outer_->Release();  // may end the outer object, which then gives its own reference on this one back
    return CReference::Release();
  }

 protected:
  // `outer` is not counted here.
  explicit CAggRef_T(Outer* outer) : outer_(outer), inner_(this) {}

  IReference* InternalReference() { return &inner_; }

 private:
  class INTERNAL_REF final : public IReference {
   public:
    explicit INTERNAL_REF(CAggRef_T* owner) : owner_(owner) {}
    std::int64_t AddRef() override { return owner_->CReference::AddRef(); }
    std::int64_t Release() override { return owner_->CReference::Release(); }

   private:
    CAggRef_T* const owner_;
  };

  Outer* const outer_;
  INTERNAL_REF inner_;
};

#endif  // GX_PORTFWD_AGG_REF_H
