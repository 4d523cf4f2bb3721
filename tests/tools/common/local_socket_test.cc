#include "common/local_socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common/descriptor.h"

namespace gxtool {
namespace {

int SendBuffer(int fd) {
  int bytes = 0;
  socklen_t length = sizeof bytes;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &length), 0);
  return bytes;
}

TEST(LocalSocketTest, BoundsLocalSocketsAlone) {
  const Pipe local = MakeSocketPipe();
  const Descriptor tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int before = SendBuffer(tcp.get());
  for (const int fd : {local.write.get(), tcp.get()}) SetUnreadBytes(fd, 16 * 1024);
  EXPECT_EQ(SendBuffer(local.write.get()), 2 * 16 * 1024);
  EXPECT_EQ(SendBuffer(tcp.get()), before);
}

}  // namespace
}  // namespace gxtool
