// The one way out to the plugin stream.
#ifndef GX_PORTFWD_PLUGIN_WRITER_H
#define GX_PORTFWD_PLUGIN_WRITER_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/mutex_lock.h"
#include "gxmod/control_ssh.h"
#include "object/reference.h"

// Writes whole frames, one after the other: the host's Write may take part of a block, and no frame may land
// inside another one. Threads: any. WriteFrame waits for its turn and for the host; nothing but the host's
// Write runs meanwhile.
class CPluginWriter final : public CReference {
 public:
  // Takes a reference on `stream`, which is not null.
  explicit CPluginWriter(IPluginStreamRaw* stream) : stream_(stream) {}

  // `length` bytes at `frame`, header and payload. Gives the frame up silently when the stream fails; when it
  // failed in the middle of a frame, every later one is dropped, since the far side could not tell where it
  // begins.
  void WriteFrame(const void* frame, std::size_t length);

  // True while some frame has been on its way into the stream for at least `ms`: the far side is not reading.
  bool IsBlockedFor(std::uint64_t ms) const;

 private:
  ~CPluginWriter() override = default;
  bool WriteAll(const unsigned char* data, std::size_t length) REQUIRES(mutex_);

  const CRefObj<IPluginStreamRaw> stream_;
  CStdMutex mutex_;
  bool torn_ GUARDED_BY(mutex_) = false;
  std::atomic<std::uint64_t> writing_since_ms_{0};  // 0: no frame is on its way
};

#endif  // GX_PORTFWD_PLUGIN_WRITER_H
