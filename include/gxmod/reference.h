// Reference counting across the boundary between the host and the module.
//
// Every interface of this module that is shared by two owners derives from IReference and is held by a
// CRefObj. A pointer argument is borrowed for the call and a pointer that a getter returns is borrowed from the
// object, unless the operation says "counted": then one reference belongs to whoever receives it.
#ifndef GXMOD_REFERENCE_H
#define GXMOD_REFERENCE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

// The count of one object. The virtual table holds the destructor pair, then AddRef and Release.
// Threads: both operations may be called on any thread.
class IReference {
 public:
  virtual ~IReference() = default;

  // Takes one reference. Returns the count after the change.
  virtual std::int64_t AddRef() = 0;

  // Gives one reference back; the object may be gone when this returns. Returns the count after the change.
  virtual std::int64_t Release() = 0;
};

// Owns one reference to a T, or none. As thread-safe as a plain pointer: one CRefObj belongs to one thread at a
// time, while the object it points to may be shared.
template <class T>
class CRefObj {
 public:
  CRefObj() noexcept = default;        // none
  CRefObj(std::nullptr_t) noexcept {}  // none

  // Takes a reference of its own on `object`, which may be null.
  CRefObj(T* object) : object_(object) {
    if (object_ != nullptr) object_->AddRef();
  }
  // Takes a reference of its own.
  CRefObj(const CRefObj& other) : CRefObj(other.object_) {}
  // Takes over that of `other`, which is empty afterwards.
  CRefObj(CRefObj&& other) noexcept : object_(other.Detach()) {}

  // Takes a reference of its own, to a base of the object.
  template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  CRefObj(const CRefObj<U>& other) : CRefObj(static_cast<T*>(other.get())) {}

  ~CRefObj() {
    if (object_ != nullptr) object_->Release();
  }

  // The new target is referenced before the old one is given up, so assigning an object to itself is safe.
  CRefObj& operator=(CRefObj other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  // Takes over a reference that the caller already owns.
  static CRefObj Attach(T* counted) noexcept {
    CRefObj result;
    result.object_ = counted;
    return result;
  }

  // Hands the reference to the caller and leaves this pointer empty.
  [[nodiscard]] T* Detach() noexcept { return std::exchange(object_, nullptr); }

  T* get() const noexcept { return object_; }                             // borrowed; null when empty
  T* operator->() const noexcept { return object_; }                      // not when empty
  T& operator*() const noexcept { return *object_; }                      // not when empty
  explicit operator bool() const noexcept { return object_ != nullptr; }  // false when empty

  // The same object, or both empty.
  friend bool operator==(const CRefObj& a, const CRefObj& b) noexcept { return a.object_ == b.object_; }
  // Not the same object.
  friend bool operator!=(const CRefObj& a, const CRefObj& b) noexcept { return a.object_ != b.object_; }

 private:
  T* object_ = nullptr;
};

#endif  // GXMOD_REFERENCE_H
