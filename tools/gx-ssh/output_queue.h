// Lines for a reader that may be slow or may stall.
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

// Writes them on a thread of its own, so that nobody else ever waits for the reader. When more than kBytes
// wait, the oldest statistics go, and after these the oldest of all; a line in their place tells how many.
// Threads: any.
class OutputQueue {
 public:
  static constexpr std::size_t kBytes = 1024 * 1024;
  enum class Kind { kNews, kStatistics };

  // `fd` is borrowed, and its mode stays as it is. `lost_line` makes the line that stands for lost ones.
  OutputQueue(int fd, std::function<std::string(std::uint64_t lost)> lost_line);
  // Gives the reader a moment to take what waits.
  ~OutputQueue();
  OutputQueue(const OutputQueue&) = delete;
  OutputQueue& operator=(const OutputQueue&) = delete;

  void Add(std::string line, Kind kind = Kind::kNews);
  // True: nothing waits any more. False: it still does after `limit`.
  bool WaitUntilWritten(std::chrono::milliseconds limit);

 private:
  class Writer;
  const std::shared_ptr<Writer>
      writer_;  // the thread's as well: one that cannot be ended goes with the process
  std::thread thread_;
};

}  // namespace gxtool

#endif  // GX_SSH_OUTPUT_QUEUE_H
