// The buffers that carry every byte of the module, and their allocators.
#ifndef GX_STREAM_IBUFFER_H
#define GX_STREAM_IBUFFER_H

#include <cstddef>

#include "gxmod/reference.h"

class IMemAlloctor;

// A counted block of bytes. The usable area (pointer, capacity, filled size) and the allocation behind it are
// two views of one block; allocators free, reallocate and account by the actual view. Threads: one at a time;
// owners hand a buffer on. Only the count is atomic.
class IBuffer : public IReference {
 public:
  virtual void* GetPointer() const = 0;               // start of the usable bytes; null when the capacity is 0
  virtual std::size_t GetSize() const = 0;            // valid bytes
  virtual std::size_t SetSize(std::size_t size) = 0;  // cut to the capacity; returns what was set
  virtual std::size_t GetBufferSize() const = 0;      // capacity of the usable area
  virtual std::size_t GetActualSize() const = 0;      // size of the allocation
  virtual void* GetActualPointer() const = 0;         // the allocation
  virtual CRefObj<IMemAlloctor> GetCurAlloctor() const = 0;
  // The new allocation; null: no allocator or no memory, and the buffer is as it was.
  virtual void* Realloc(std::size_t size) = 0;
  // Installs another block and returns the previous one. Frees nothing and leaves the filled size alone.
  virtual void* Reset(void* pointer, std::size_t size) = 0;
  // One word for the buffer's owner, null at first. Returns the previous one.
  virtual void* SetUserData(void* data);
  virtual void* GetUserData() const;

 private:
  void* user_data_ = nullptr;
};

// Threads: any.
class IMemAlloctor : public IReference {
 public:
  // A buffer of `size` bytes, or of the maximum when that is smaller; its filled size is 0. Empty: no memory.
  virtual CRefObj<IBuffer> GetFreeBuffer(std::size_t size) = 0;
  // Frees the buffer's block, not the buffer. False for null.
  virtual bool FreeBuff(IBuffer* buffer) = 0;
  virtual std::size_t GetMaxBufferSize() = 0;
  // The buffer's new block. Null: null buffer, no memory (the buffer is as it was), or size 0.
  virtual void* Realloc(IBuffer* buffer, std::size_t size) = 0;
  // Where GetFreeBuffer gets its buffers.
  virtual CRefObj<IBuffer> CreateBuffer(std::size_t size) = 0;
};

#endif  // GX_STREAM_IBUFFER_H
