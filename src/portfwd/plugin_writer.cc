#include "portfwd/plugin_writer.h"

#include <algorithm>
#include <limits>

#include "base/clock.h"

namespace {

constexpr std::uint64_t kPromptMs = 1;

// Reports the end of the Write to the flow control on every way out.
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
  torn_ = true;  // stays set if Write throws: it may have taken a part
  const WriteScope writing(flow_);
  const auto* const data = static_cast<const unsigned char*>(frame);
  const std::uint64_t start_ms = gettickcount();
  std::size_t done = 0;
  unsigned calls = 0;
  flow_.WriteWaits(start_ms);
  while (done < length) {
    const auto rest =
        static_cast<unsigned>(std::min<std::size_t>(length - done, std::numeric_limits<unsigned>::max()));
    unsigned written = 0;
    if (stream_->Write(data + done, rest, &written, 0) != 0) break;
    ++calls;
    done += std::min(written, rest);
    if (written != 0 && done < length) flow_.WriteWaits(gettickcount());
  }
  torn_ = done != 0 && done != length;
  return calls <= 1 && gettickcount() - start_ms <= kPromptMs;
}
