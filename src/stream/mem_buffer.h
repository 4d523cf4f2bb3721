// Buffers on the heap: one malloc per block and one free at its end, without a pool.
#ifndef GX_STREAM_MEM_BUFFER_H
#define GX_STREAM_MEM_BUFFER_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

#include "object/creference.h"
#include "stream/ibuffer.h"

// Created by an allocator, which it holds a reference to and which frees its block. Both views of the block are
// the same.
class CMemBuffer final : public IBuffer, private CReference {
 public:
  // Takes over `block` of `size` bytes.
  CMemBuffer(IMemAlloctor* allocator, void* block, std::size_t size);
  ~CMemBuffer() override;
  GX_FORWARD_REFERENCE();

  void* GetPointer() const override { return pointer_; }
  std::size_t GetSize() const override { return size_; }
  std::size_t SetSize(std::size_t size) override;
  std::size_t GetBufferSize() const override { return buffer_size_; }
  std::size_t GetActualSize() const override { return buffer_size_; }
  void* GetActualPointer() const override { return pointer_; }
  CRefObj<IMemAlloctor> GetCurAlloctor() const override { return allocator_; }
  void* Realloc(std::size_t size) override;
  void* Reset(void* pointer, std::size_t size) override;

 private:
  CRefObj<IMemAlloctor> allocator_;
  void* pointer_;
  std::size_t size_ = 0;
  std::size_t buffer_size_;
};

// The allocator of buffers of class T. Threads: any.
template <class T>
class CMemAlloctorEx : public IMemAlloctor, private CReference {
 public:
  explicit CMemAlloctorEx(std::size_t max_buffer_size = std::numeric_limits<std::size_t>::max())
      : max_buffer_size_(max_buffer_size) {}
  GX_FORWARD_REFERENCE();

  CRefObj<IBuffer> GetFreeBuffer(std::size_t size) override { return CreateBuffer(size); }
  bool FreeBuff(IBuffer* buffer) override;
  std::size_t GetMaxBufferSize() override { return max_buffer_size_; }
  void* Realloc(IBuffer* buffer, std::size_t size) override;
  CRefObj<IBuffer> CreateBuffer(std::size_t size) override;

 private:
  const std::size_t max_buffer_size_;
};

// The process-wide allocator.
extern CRefObj<IMemAlloctor> g_pMemAlloctor;

// Returns a new buffer with a copy of `size` bytes at `data`. Empty without an allocator or memory, or when the
// allocator's maximum is below `size`: a partial copy would look complete.
CRefObj<IBuffer> cpy2buf(IMemAlloctor* allocator, const void* data, std::size_t size);
CRefObj<IBuffer> cpy2buf(const void* data, std::size_t size);

template <class T>
bool CMemAlloctorEx<T>::FreeBuff(IBuffer* buffer) {
  if (buffer == nullptr) return false;
  std::free(buffer->GetActualPointer());
  return true;
}

template <class T>
void* CMemAlloctorEx<T>::Realloc(IBuffer* buffer, std::size_t size) {
  if (buffer == nullptr) return nullptr;
  void* block = std::realloc(buffer->GetActualPointer(), size);
  if (size != 0 && block == nullptr) return nullptr;
  buffer->Reset(block, size);
  return block;
}

template <class T>
CRefObj<IBuffer> CMemAlloctorEx<T>::CreateBuffer(std::size_t size) {
  const std::size_t maximum = GetMaxBufferSize();
  if (maximum < size) size = maximum;
  void* block = nullptr;
  if (size != 0) {
    block = std::malloc(size);
    if (block == nullptr) block = std::malloc(size);  // one retry: another thread may just have freed memory
    if (block == nullptr) return {};
  }
  T* buffer = new (std::nothrow) T(this, block, size);
  if (buffer == nullptr) std::free(block);
  return buffer;
}

#endif  // GX_STREAM_MEM_BUFFER_H
