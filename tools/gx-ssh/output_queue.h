// Lines for a reader that may be slow or stop reading.
#ifndef GX_SSH_OUTPUT_QUEUE_H
#define GX_SSH_OUTPUT_QUEUE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace gxtool {

// Writes the lines on its own thread, so that callers never wait for the reader. When more than kBytes are
// queued, the oldest statistics are dropped, and after these the oldest lines; a line in their place gives
// their number. Threads: any.
class OutputQueue {
 public:
  static constexpr std::size_t kBytes = 1024 * 1024;
  enum class Kind { kNews, kStatistics };

  // `fd` is borrowed and keeps its mode. `lost_line` formats the line that replaces dropped ones.
  OutputQueue(int fd, std::function<std::string(std::uint64_t lost)> lost_line);
  // Gives the reader a moment to take the queued lines. Drops those for which there is no room then.
  ~OutputQueue();
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  void Add(std::string line, Kind kind = Kind::kNews);
  // Returns true when everything is written, false when `limit` has passed first.
  bool WaitUntilWritten(std::chrono::milliseconds limit);

 private:
  class Writer;
  const std::shared_ptr<Writer>
      writer_;  // shared with the thread, which outlives this object while its write is blocked
  std::thread thread_;
};

}  // namespace gxtool

#endif  // GX_SSH_OUTPUT_QUEUE_H
