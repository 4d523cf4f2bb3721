// A name in the file system that goes with its owner.
#ifndef GX_SSH_OWN_PATH_H
#define GX_SSH_OWN_PATH_H

#include <sys/stat.h>

#include <string>
#include <utility>

namespace gxtool {

// Removes the name, unless something else stands there by then: a newer process has put its own there. Keep
// what it names open meanwhile, so that the system gives its inode to nobody else.
class OwnPath {
 public:
  // `what` is what the name stands for.
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
