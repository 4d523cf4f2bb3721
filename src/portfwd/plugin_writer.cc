#include "portfwd/plugin_writer.h"

#include <algorithm>
#include <limits>

#include "base/clock.h"

namespace {

constexpr std::uint64_t kPromptMs = 1;

// Tells the flow control that nobody is in Write any more, however the frame ends.
class WriteScope {
 public:
  explicit WriteScope(CFlowControl& flow) : flow_(flow) {}
  WriteScope(const WriteScope&) = delete;
  WriteScope& operator=(const WriteScope&) = delete;
  ~WriteScope() { flow_.WriteEnds(); }

 private:
  CFlowControl& flow_;
};

}  // namespace

bool CPluginWriter::WriteFrame(const void* frame, std::size_t length) {
  CStdLock lock(mutex_);
  if (torn_) return true;
  torn_ = true;  // Write may throw after it has taken a part
  const WriteScope writing(flow_);
  const auto* const data = static_cast<const unsigned char*>(frame);
  const std::uint64_t start_ms = gettickcount();
  std::uint64_t now_ms = start_ms;
  std::size_t done = 0;
  unsigned calls = 0;
  for (; done < length; now_ms = gettickcount()) {
    flow_.WriteWaits(now_ms);
    const auto rest =
        static_cast<unsigned>(std::min<std::size_t>(length - done, std::numeric_limits<unsigned>::max()));
    unsigned written = 0;
    if (stream_->Write(data + done, rest, &written, 0) != 0) break;
    done += std::min(written, rest);
    ++calls;
  }
  torn_ = done != 0 && done != length;
  return calls <= 1 && now_ms - start_ms <= kPromptMs;
}
