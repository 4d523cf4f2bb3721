// Those who wait until this program is ready.
#ifndef GX_SSH_READINESS_H
#define GX_SSH_READINESS_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <string>

#include "common/descriptor.h"

namespace gxtool {

// A descriptor that the caller has named, and the service manager, when that has started this program. The
// manager also hears that the program stops, and signs of life where it wants some. Threads: the one that runs
// `io`.
class Readiness {
 public:
  // The service manager is part of this build.
  static bool KnowsServiceManager();

  // `descriptor` is taken; -1: none.
  Readiness(asio::io_context& io, int descriptor);

  // At the first call: one line there, `line` without its end, and no more.
  void OnReady(const std::string& line);
  // One line for whoever asks the service manager.
  void OnStatus(const std::string& line);
  void OnStopping();

 private:
  void ShowLife();

  Descriptor descriptor_;
  asio::steady_timer timer_;
  std::chrono::microseconds interval_{0};  // between signs of life; 0: none are wanted
};

}  // namespace gxtool

#endif  // GX_SSH_READINESS_H
