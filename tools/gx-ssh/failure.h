// The failures that end the program, and their exit statuses.
#ifndef GX_SSH_FAILURE_H
#define GX_SSH_FAILURE_H

#include <stdexcept>
#include <string>

namespace gxtool {

enum ExitStatus : int {
  kExitOk = 0,  // stopped normally, or with -W the connection has ended
  kExitLinkLost = 1,
  kExitUsage = 2,
  kExitModule = 3,           // missing or wrong
  kExitNotReady = 4,         // the far side never became ready
  kExitListen = 5,           // no local address was available
  kExitNotExecutable = 126,  // of the carrier
  kExitNotFound = 127,       // of the carrier
  kExitTunnel = 255,         // with --run: the tunnel failed before the command ended
};

// A one-line message for the user, and the exit status.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message) : std::runtime_error(message), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace gxtool

#endif  // GX_SSH_FAILURE_H
