#include "stream/mem_buffer.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "object/object_monitor.h"

// Registered but not counted: two atomic additions per buffer would cost more than the number is worth.
GX_MONITOR_CLASS(0, CMemBuffer);

CRefObj<IMemAlloctor> g_pMemAlloctor(new (std::nothrow) CMemAlloctorEx<CMemBuffer>());

CMemBuffer::CMemBuffer(IMemAlloctor* allocator, void* block, std::size_t size)
    : allocator_(allocator), pointer_(block), buffer_size_(size) {}

CMemBuffer::~CMemBuffer() {
  if (allocator_) allocator_->FreeBuff(this);
}

std::size_t CMemBuffer::SetSize(std::size_t size) {
  size_ = std::min(size, buffer_size_);
  return size_;
}

void* CMemBuffer::Realloc(std::size_t size) { return allocator_ ? allocator_->Realloc(this, size) : nullptr; }

void* CMemBuffer::Reset(void* pointer, std::size_t size) {
  buffer_size_ = size;
  return std::exchange(pointer_, pointer);
}

CRefObj<IBuffer> cpy2buf(IMemAlloctor* allocator, const void* data, std::size_t size) {
  if (allocator == nullptr) return {};
  CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(size);
  if (!buffer || buffer->SetSize(size) != size) return {};
  if (size != 0) std::memcpy(buffer->GetPointer(), data, size);
  return buffer;
}

CRefObj<IBuffer> cpy2buf(const void* data, std::size_t size) {
  return cpy2buf(g_pMemAlloctor.get(), data, size);
}
