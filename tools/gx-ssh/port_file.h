// A file that tells other programs the address while the port is open.
#ifndef GX_SSH_PORT_FILE_H
#define GX_SSH_PORT_FILE_H

#include <string>

namespace gxtool {

class PortFile {
 public:
  // Writes `content` at once and whole, readable for the owner only; what was there is replaced. Throws Failure
  // (kExitListen).
  PortFile(const std::string& path, const std::string& content);
  // Removes it.
  ~PortFile();
  PortFile(const PortFile&) = delete;
  PortFile& operator=(const PortFile&) = delete;

 private:
  const std::string path_;
};

}  // namespace gxtool

#endif  // GX_SSH_PORT_FILE_H
