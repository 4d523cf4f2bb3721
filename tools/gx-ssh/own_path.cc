#include "gx-ssh/own_path.h"

#include <unistd.h>

namespace gxtool {

OwnPath::~OwnPath() {
  struct stat now {};
  const bool ours = lstat(path_.c_str(), &now) == 0 && now.st_dev == what_.st_dev && now.st_ino == what_.st_ino;
  if (ours) unlink(path_.c_str());
}

}  // namespace gxtool
