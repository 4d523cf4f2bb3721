#include "portfwd/plugin_writer.h"

#include <algorithm>
#include <limits>

#include "base/clock.h"

void CPluginWriter::WriteFrame(const void* frame, std::size_t length) {
  CStdLock lock(mutex_);
  if (torn_) return;
  writing_since_ms_.store(gettickcount(), std::memory_order_relaxed);
  torn_ = !WriteAll(static_cast<const unsigned char*>(frame), length);
  writing_since_ms_.store(0, std::memory_order_relaxed);
}

// False: failed after a part of the block was taken.
bool CPluginWriter::WriteAll(const unsigned char* data, std::size_t length) {
  std::size_t done = 0;
  while (done < length) {
    const auto rest =
        static_cast<unsigned>(std::min<std::size_t>(length - done, std::numeric_limits<unsigned>::max()));
    unsigned written = 0;
    if (stream_->Write(data + done, rest, &written, 0) != 0) return done == 0;
    done += std::min(written, rest);
  }
  return true;
}

bool CPluginWriter::IsBlockedFor(std::uint64_t ms) const {
  const std::uint64_t since_ms = writing_since_ms_.load(std::memory_order_relaxed);
  return since_ms != 0 && gettickcount() >= since_ms + ms;
}
