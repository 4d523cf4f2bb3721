// What ends the program, and with which status.
#ifndef GX_SSH_FAILURE_H
#define GX_SSH_FAILURE_H

#include <stdexcept>
#include <string>

namespace gxtool {

enum ExitStatus : int {
  kExitOk = 0,  // stopped in order, or with -W the end of the connection
  kExitLinkLost = 1,
  kExitUsage = 2,
  kExitModule = 3,           // missing or wrong
  kExitNotReady = 4,         // the far side never was
  kExitListen = 5,           // no local address to be had
  kExitNotExecutable = 126,  // the carrier
  kExitNotFound = 127,       // the carrier
  kExitTunnel = 255,         // with --run: the tunnel failed before the command ended
};

// One line for the person, and the status that goes with it.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string& message) : std::runtime_error(message), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace gxtool

#endif  // GX_SSH_FAILURE_H
