// The process or thread at the far end of a link, and the two descriptors to it.
#ifndef GX_SSH_FAR_SIDE_H
#define GX_SSH_FAR_SIDE_H

#include <string>

#include "common/descriptor.h"

namespace gxtool {

// Threads: the program's main thread.
class FarSide {
 public:
  virtual ~FarSide() = default;

  // The stream; the caller takes over the descriptors.
  virtual Descriptor TakeInput() = 0;   // from the far side
  virtual Descriptor TakeOutput() = 0;  // to the far side

  // True when it has ended. Call after SIGCHLD.
  virtual bool Exited() = 0;
  // True when a signal ended it.
  virtual bool Killed() = 0;
  // True when the user interrupted it while it had the terminal.
  virtual bool Interrupted() = 0;
  // True when it has ended and its last message was read.
  virtual bool Ended() = 0;
  // Call before gx-ssh is stopped alone.
  virtual void Suspend() = 0;
  // Call after a shell has stopped and continued gx-ssh together with the terminal's other groups.
  virtual void Continue() = 0;
  // Ends it within 2 s. The caller has closed the stream's descriptors.
  virtual void End() = 0;
  // How it ended, for a message, for example: carrier "docker", exit status 1: no such container
  virtual std::string Describe() = 0;
};

}  // namespace gxtool

#endif  // GX_SSH_FAR_SIDE_H
