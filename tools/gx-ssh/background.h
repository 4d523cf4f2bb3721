// --background: the program continues after the shell has its prompt back.
#ifndef GX_SSH_BACKGROUND_H
#define GX_SSH_BACKGROUND_H

#include "common/descriptor.h"

namespace gxtool {

// The process that continues. The original process waits until this one is ready, prints this one's process id
// on standard output and ends. If this one ends earlier, the original one ends with the same status.
class Background {
 public:
  // Forks and returns in the new process. Call it before starting threads. Throws std::system_error.
  explicit Background(int output);

  // Call when ready: moves this process to its own session, away from the terminal and its job, and redirects
  // standard input, output (also `output`) and error to /dev/null. Returns false when the original process is
  // gone.
  bool Detach(int output);

 private:
  Descriptor launcher_;
};

}  // namespace gxtool

#endif  // GX_SSH_BACKGROUND_H
