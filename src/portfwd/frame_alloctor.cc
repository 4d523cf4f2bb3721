#include "portfwd/frame_alloctor.h"

#include <cstdlib>
#include <new>

CRefObj<IBuffer> CFrameAlloctor::CreateBuffer(std::size_t /*size*/) {
  void* block = spare_.exchange(nullptr);
  if (block == nullptr) block = std::malloc(kBlockBytes);
  if (block == nullptr) return {};
  CRefObj<IBuffer> buffer(new (std::nothrow) CMemBuffer(this, block, kBlockBytes));
  if (buffer) {
    buffer->SetSize(gxmod::kFrameHeaderBytes);
  } else {
    std::free(block);
  }
  return buffer;
}

bool CFrameAlloctor::FreeBuff(IBuffer* buffer) {
  if (buffer == nullptr || buffer->GetActualSize() != kBlockBytes) return CMemAlloctorEx::FreeBuff(buffer);
  std::free(spare_.exchange(buffer->GetActualPointer()));
  return true;
}
