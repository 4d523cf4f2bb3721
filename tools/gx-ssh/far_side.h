// What runs the far side of a link, and the two descriptors that lead to it.
#ifndef GX_SSH_FAR_SIDE_H
#define GX_SSH_FAR_SIDE_H

#include <string>

#include "common/descriptor.h"

namespace gxtool {

// Threads: the program's own one.
class FarSide {
 public:
  virtual ~FarSide() = default;

  // The stream; whoever uses it takes the descriptors.
  virtual Descriptor TakeInput() = 0;   // what the far side sends
  virtual Descriptor TakeOutput() = 0;  // what it receives

  // It has ended. Call it after SIGCHLD.
  virtual bool Exited() = 0;
  // It was ended by a signal, and so not by itself.
  virtual bool Killed() = 0;
  // Somebody has interrupted it at the terminal that it had.
  virtual bool Interrupted() = 0;
  // It has ended and its last word has come.
  virtual bool Ended() = 0;
  // gx-ssh is about to be stopped, and nobody stops this with it.
  virtual void Suspend() = 0;
  // A shell has stopped and continued gx-ssh, and with it the terminal's other groups.
  virtual void Continue() = 0;
  // Makes it end, within 2 s at most. The descriptors of the stream are closed before.
  virtual void End() = 0;
  // What ended and how, for a message: carrier "docker", exit status 1: no such container
  virtual std::string Describe() = 0;
};

}  // namespace gxtool

#endif  // GX_SSH_FAR_SIDE_H
