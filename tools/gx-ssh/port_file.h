// A file that tells other programs the addresses while the ports are open.
#ifndef GX_SSH_PORT_FILE_H
#define GX_SSH_PORT_FILE_H

#include <optional>
#include <string>

#include "common/descriptor.h"
#include "gx-ssh/own_path.h"

namespace gxtool {

// Removes it at its end, unless a newer process has put its own there.
class PortFile {
 public:
  // Writes `content` at once and whole, readable for the owner only; what was there is replaced. Throws Failure
  // (kExitListen).
  PortFile(const std::string& path, const std::string& content);

 private:
  Descriptor file_;
  std::optional<OwnPath> own_path_;
};

}  // namespace gxtool

#endif  // GX_SSH_PORT_FILE_H
