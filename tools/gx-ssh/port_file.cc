#include "gx-ssh/port_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gx-ssh/failure.h"

namespace gxtool {

PortFile::PortFile(const std::string& path, const std::string& content) {
  std::string draft = path + ".XXXXXX";
  file_ = Descriptor(mkostemp(draft.data(), O_CLOEXEC));  // creates it with mode 0600
  struct stat what {};
  const bool written =
      file_ && write(file_.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
  if (written && fstat(file_.get(), &what) == 0 && rename(draft.c_str(), path.c_str()) == 0) {
    own_path_.emplace(path, what);
    return;
  }
  const int reason = errno;
  if (file_) unlink(draft.c_str());
  throw Failure(kExitListen, "cannot write " + path + ": " + std::strerror(reason));
}

}  // namespace gxtool
