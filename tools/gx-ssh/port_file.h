// A file that tells other programs the addresses while the ports are open.
#ifndef GX_SSH_PORT_FILE_H
#define GX_SSH_PORT_FILE_H

#include <optional>
#include <string>

#include "common/descriptor.h"
#include "gx-ssh/own_path.h"

namespace gxtool {

// The destructor removes the file, unless a newer process has replaced it.
class PortFile {
 public:
  // Writes `content` atomically, readable only for the owner, and replaces an existing file. Throws Failure
  // (kExitListen).
  PortFile(const std::string& path, const std::string& content);

 private:
  Descriptor file_;
  std::optional<OwnPath> own_path_;
};

}  // namespace gxtool

#endif  // GX_SSH_PORT_FILE_H
