// Tells other programs when this one is ready.
#ifndef GX_SSH_READINESS_H
#define GX_SSH_READINESS_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <string>

#include "common/descriptor.h"

namespace gxtool {

// Informs a descriptor that the caller has named and, if a service manager started this program, the manager.
// The manager also gets status lines, the stop, and watchdog messages if it wants them. Threads: the one that
// runs `io`.
class Readiness {
 public:
  // True when this build supports a service manager.
  static bool KnowsServiceManager();

  // Takes over `descriptor`; -1: none.
  Readiness(asio::io_context& io, int descriptor);

  // Informs the service manager. The first call also writes `line` with a line end to the descriptor and closes
  // it.
  void OnReady(const std::string& line);
  // A line that the service manager shows to its users.
  void OnStatus(const std::string& line);
  void OnStopping();

 private:
  void ShowLife();

  Descriptor descriptor_;
  asio::steady_timer timer_;
  std::chrono::microseconds interval_{0};  // of the watchdog messages; 0: none
};

}  // namespace gxtool

#endif  // GX_SSH_READINESS_H
