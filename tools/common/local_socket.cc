#include "common/local_socket.h"

#include <sys/socket.h>

namespace gxtool {

void SetUnreadBytes(int fd, int bytes) {
  sockaddr_storage name{};
  socklen_t length = sizeof name;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&name), &length) != 0 || name.ss_family != AF_UNIX) return;
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
}

}  // namespace gxtool
