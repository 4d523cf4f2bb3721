#include "link/local_socket.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "gx-ssh/descriptor.h"

namespace gxtool {
namespace {

// What an end takes while nobody reads.
std::size_t Capacity(int fd) {
  const std::string block(1024, 'x');
  std::size_t taken = 0;
  while (send(fd, block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0) taken += block.size();
  return taken;
}

int SendBuffer(int fd) {
  int bytes = 0;
  socklen_t length = sizeof bytes;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &length), 0);
  return bytes;
}

TEST(LocalSocketTest, BoundsWhatLiesUnread) {
  const Pipe narrow = MakeSocketPipe();
  const Pipe wide = MakeSocketPipe();
  SetUnreadBytes(narrow.write.get(), 16 * 1024);
  SetUnreadBytes(wide.write.get(), 128 * 1024);
  const std::size_t least = Capacity(narrow.write.get());
  EXPECT_GE(least, 4U * 1024);
  EXPECT_LE(least, 64U * 1024);
  EXPECT_GT(Capacity(wide.write.get()), 2 * least);
}

TEST(LocalSocketTest, LeavesOtherDescriptorsAlone) {
  const Descriptor tcp(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int before = SendBuffer(tcp.get());
  SetUnreadBytes(tcp.get(), 4 * before);
  EXPECT_EQ(SendBuffer(tcp.get()), before);
}

}  // namespace
}  // namespace gxtool
