// The buffers for all data of the module, and their allocators.
#ifndef GX_STREAM_IBUFFER_H
#define GX_STREAM_IBUFFER_H

#include <cstddef>

#include "gxmod/reference.h"

class IMemAlloctor;

// A reference-counted block of bytes. It has two views: the usable area (pointer, capacity, filled size) and
// the allocation that contains it. Allocators free, reallocate and account by the allocation. Threads: one at a
// time, apart from the reference count.
class IBuffer : public IReference {
 public:
  virtual void* GetPointer() const = 0;               // start of the usable bytes; null when the capacity is 0
  virtual std::size_t GetSize() const = 0;            // valid bytes
  virtual std::size_t SetSize(std::size_t size) = 0;  // truncated to the capacity; returns the size set
  virtual std::size_t GetBufferSize() const = 0;      // capacity of the usable area
  virtual std::size_t GetActualSize() const = 0;      // size of the allocation
  virtual void* GetActualPointer() const = 0;         // the allocation
  virtual CRefObj<IMemAlloctor> GetCurAlloctor() const = 0;
  // Returns the new allocation. Null, with the buffer unchanged, without an allocator or memory.
  virtual void* Realloc(std::size_t size) = 0;
  // Installs another block and returns the previous one. Frees nothing and keeps the filled size.
  virtual void* Reset(void* pointer, std::size_t size) = 0;
  // One pointer for the buffer's owner, initially null. Returns the previous one.
  virtual void* SetUserData(void* data);
  virtual void* GetUserData() const;

 private:
  void* user_data_ = nullptr;
};

// Threads: any.
class IMemAlloctor : public IReference {
 public:
  // A buffer of `size` bytes, or of the maximum size if that is smaller; its filled size is 0. Empty when
  // memory runs out.
  virtual CRefObj<IBuffer> GetFreeBuffer(std::size_t size) = 0;
  // Frees the buffer's block, but not the buffer. False for null.
  virtual bool FreeBuff(IBuffer* buffer) = 0;
  virtual std::size_t GetMaxBufferSize() = 0;
  // Returns the buffer's new block. Null for a null buffer, for size 0, and when memory runs out (the buffer is
  // then unchanged).
  virtual void* Realloc(IBuffer* buffer, std::size_t size) = 0;
  // Creates the buffers for GetFreeBuffer.
  virtual CRefObj<IBuffer> CreateBuffer(std::size_t size) = 0;
};

#endif  // GX_STREAM_IBUFFER_H
