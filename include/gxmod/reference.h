// Reference counting across the boundary between the host and the module.
//
// Every interface with shared ownership derives from IReference and is held by a CRefObj. A pointer argument is
// borrowed for the call, and a pointer that a getter returns is borrowed from the object. Where a comment says
// "counted" or "new reference", the receiver owns one reference.
#ifndef GXMOD_REFERENCE_H
#define GXMOD_REFERENCE_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

// The reference count of one object. The virtual table holds the two destructor entries, then AddRef and
// Release. Threads: any.
class IReference {
 public:
  virtual ~IReference() = default;

  // Adds one reference. Returns the new count.
  virtual std::int64_t AddRef() = 0;

  // Drops one reference; the last one deletes the object. Returns the new count.
  virtual std::int64_t Release() = 0;
};

// Owns one reference to a T, or is empty. As thread-safe as a plain pointer: one thread at a time uses a
// CRefObj, while several may share the object.
template <class T>
class CRefObj {
 public:
  CRefObj() noexcept = default;        // empty
  CRefObj(std::nullptr_t) noexcept {}  // empty

  // Adds a reference to `object`, which may be null.
  CRefObj(T* object) : object_(object) {
    if (object_ != nullptr) object_->AddRef();
  }
  // Adds a reference.
  CRefObj(const CRefObj& other) : CRefObj(other.object_) {}
  // Takes over the reference of `other` and leaves it empty.
  CRefObj(CRefObj&& other) noexcept : object_(other.Detach()) {}

  // Adds a reference, through a base class of the object.
  template <class U, class = std::enable_if_t<std::is_convertible<U*, T*>::value>>
  CRefObj(const CRefObj<U>& other) : CRefObj(static_cast<T*>(other.get())) {}

  ~CRefObj() {
    if (object_ != nullptr) object_->Release();
  }

  // References the new object before it drops the old one, so self-assignment is safe.
  CRefObj& operator=(CRefObj other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  // Takes over a reference that the caller owns.
  static CRefObj Attach(T* counted) noexcept {
    CRefObj result;
    result.object_ = counted;
    return result;
  }

  // Passes the reference to the caller and leaves this CRefObj empty.
  [[nodiscard]] T* Detach() noexcept { return std::exchange(object_, nullptr); }

  T* get() const noexcept { return object_; }                             // borrowed; null when empty
  T* operator->() const noexcept { return object_; }                      // must not be empty
  T& operator*() const noexcept { return *object_; }                      // must not be empty
  explicit operator bool() const noexcept { return object_ != nullptr; }  // false when empty

  // True for the same object, or when both are empty.
  friend bool operator==(const CRefObj& a, const CRefObj& b) noexcept { return a.object_ == b.object_; }
  // True for different objects, or when only one is empty.
  friend bool operator!=(const CRefObj& a, const CRefObj& b) noexcept { return a.object_ != b.object_; }

 private:
  T* object_ = nullptr;
};

#endif  // GXMOD_REFERENCE_H
