// The memory into which local connections are read.
#ifndef GX_PORTFWD_FRAME_ALLOCTOR_H
#define GX_PORTFWD_FRAME_ALLOCTOR_H

#include <atomic>
#include <cstddef>

#include "gxmod/frames.h"
#include "stream/mem_buffer.h"

// Its buffers are filled already as far as the header of a frame goes, so that bytes which are read behind that
// leave as a frame from where they are. All have the same size. A stream has one only for as long as it reads,
// so the block that was freed last is kept for the next one. Threads: any.
class CFrameAlloctor final : public CMemAlloctorEx<CMemBuffer> {
 public:
  static constexpr std::size_t kReadBytes = 64 * 1024;  // behind the header

  CFrameAlloctor() : CMemAlloctorEx(kReadBytes) {}
  ~CFrameAlloctor() override { std::free(spare_.load()); }

  CRefObj<IBuffer> CreateBuffer(std::size_t size) override;
  bool FreeBuff(IBuffer* buffer) override;

 private:
  static constexpr std::size_t kBlockBytes = gxmod::kFrameHeaderBytes + kReadBytes;

  std::atomic<void*> spare_{nullptr};
};

#endif  // GX_PORTFWD_FRAME_ALLOCTOR_H
