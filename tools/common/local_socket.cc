#include "common/local_socket.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace gxtool {
namespace {

bool IsLocal(int fd) {
  sockaddr_storage name{};
  socklen_t length = sizeof name;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length) == 0 && name.ss_family == AF_UNIX;
}

}  // namespace

void SetUnreadBytes(int fd, int bytes) {
  if (IsLocal(fd)) setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

std::optional<int> UnreadBytes(int fd) {
  int bytes = 0;
  if (!IsLocal(fd) || ioctl(fd, SIOCOUTQ, &bytes) != 0) return std::nullopt;
  return bytes;
}

}  // namespace gxtool
