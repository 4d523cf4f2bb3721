#include "gx-ssh/port_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "gx-ssh/descriptor.h"
#include "gx-ssh/failure.h"

namespace gxtool {

PortFile::PortFile(const std::string& path, const std::string& content) : path_(path) {
  std::string draft = path + ".XXXXXX";
  const Descriptor file(mkostemp(draft.data(), O_CLOEXEC));  // with mode 0600
  const bool written =
      file && write(file.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size());
  if (written && rename(draft.c_str(), path.c_str()) == 0) return;
  const int reason = errno;
  if (file) unlink(draft.c_str());
  throw Failure(kExitListen, "cannot write " + path + ": " + std::strerror(reason));
}

PortFile::~PortFile() { unlink(path_.c_str()); }

}  // namespace gxtool
