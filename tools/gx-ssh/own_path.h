// A file name that the program removes at its end.
#ifndef GX_SSH_OWN_PATH_H
#define GX_SSH_OWN_PATH_H

#include <sys/stat.h>

#include <string>
#include <utility>

namespace gxtool {

// Removes the name, unless it now names another file, for example one of a newer process. Keep the named file
// open meanwhile, so that its inode is not reused.
class OwnPath {
 public:
  // `what` identifies the named file.
  OwnPath(std::string path, const struct stat& what) : path_(std::move(path)), what_(what) {}
  ~OwnPath();
  OwnPath(const OwnPath&) = delete;
  OwnPath& operator=(const OwnPath&) = delete;

 private:
  const std::string path_;
  const struct stat what_;
};

}  // namespace gxtool

#endif  // GX_SSH_OWN_PATH_H
