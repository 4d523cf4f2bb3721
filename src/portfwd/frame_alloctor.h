// The allocator for data that is read from local connections.
#ifndef GX_PORTFWD_FRAME_ALLOCTOR_H
#define GX_PORTFWD_FRAME_ALLOCTOR_H

#include <atomic>
#include <cstddef>

#include "gxmod/frames.h"
#include "stream/mem_buffer.h"

// Its buffers reserve room for a frame header before the data, and count that room as filled. So data is sent
// as a frame from where it was read. All buffers have the same size. A stream has a buffer only while it reads,
// so the last freed block is kept for the next buffer. Threads: any.
class CFrameAlloctor final : public CMemAlloctorEx<CMemBuffer> {
 public:
  static constexpr std::size_t kReadBytes = 64 * 1024;  // without the header

  CFrameAlloctor() : CMemAlloctorEx(kReadBytes) {}
  ~CFrameAlloctor() override { std::free(spare_.load()); }

  CRefObj<IBuffer> CreateBuffer(std::size_t size) override;
  bool FreeBuff(IBuffer* buffer) override;

 private:
  static constexpr std::size_t kBlockBytes = gxmod::kFrameHeaderBytes + kReadBytes;

  std::atomic<void*> spare_{nullptr};
};

#endif  // GX_PORTFWD_FRAME_ALLOCTOR_H
