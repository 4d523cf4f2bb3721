// Reference counting for an object that shares its lifetime with another one.
#ifndef GX_PORTFWD_AGG_REF_H
#define GX_PORTFWD_AGG_REF_H

#include <cstdint>

#include "object/creference.h"

// A reference to this object is also a reference to the outer one. The outer object holds this one through
// InternalReference, which does not count back, so there is no reference cycle. This object is deleted when its
// last reference, from the outer object or from others, is released.
template <class Outer>
class CAggRef_T : private CReference {
 public:
  std::int64_t AddRef() override {
    outer_->AddRef();
    return CReference::AddRef();
  }

  std::int64_t Release() override {
    outer_->Release();  // may delete the outer object, which then drops its reference to this one
    return CReference::Release();
  }

 protected:
  // `outer` is borrowed.
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
