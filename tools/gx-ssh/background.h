// --background: the program goes on after the shell has its prompt back.
#ifndef GX_SSH_BACKGROUND_H
#define GX_SSH_BACKGROUND_H

#include "common/descriptor.h"

namespace gxtool {

// The process that goes on; the one that was started waits until this is ready, prints the number of this one
// to its standard output and ends. When this one ends before, that one ends with the same status.
class Background {
 public:
  // Forks, and returns in the new process. Before there are threads. Throws std::system_error.
  explicit Background(int output);

  // Ready: leaves the terminal and the job for a session of its own, and standard input, output (also `output`)
  // and error for /dev/null. False: nobody waits any more.
  bool Detach(int output);

 private:
  Descriptor launcher_;
};

}  // namespace gxtool

#endif  // GX_SSH_BACKGROUND_H
