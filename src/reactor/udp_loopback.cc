#include "reactor/udp_loopback.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>

#include "reactor/descriptor_set.h"

namespace {

int OpenUdpSocket() {
#ifdef SOCK_CLOEXEC
  return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
#else
  const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
  if (descriptor != -1) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  return descriptor;
#endif
}

bool SetNonBlocking(int descriptor) {
  int on = 1;
  return ioctl(descriptor, FIONBIO, &on) == 0;
}

}  // namespace

bool CUdpLoopback::Create() {
  CStdLock lock(mutex_);
  return Open();
}

bool CUdpLoopback::CreateIfNot() {
  CStdLock lock(mutex_);
  return socket_ != -1 || Open();
}

int CUdpLoopback::Write(const void* data, int length) {
  CStdLock lock(mutex_);
  if (socket_ == -1) return 0;
  // No address: the socket is connected to its own, and some systems refuse to be told twice.
  return static_cast<int>(sendto(socket_, data, static_cast<std::size_t>(length), 0, nullptr, 0));
}

int CUdpLoopback::Read(void* buffer, int length) {
  CStdLock lock(mutex_);
  if (socket_ == -1) return 0;
  const auto got = recvfrom(socket_, buffer, static_cast<std::size_t>(length), 0, nullptr, nullptr);
  if (got == -1 && errno == ENOTCONN) Open();
  return static_cast<int>(got);
}

void CUdpLoopback::Destroy() {
  CStdLock lock(mutex_);
  Close();
}

int CUdpLoopback::GetHandle() {
  CStdLock lock(mutex_);
  return socket_;
}

bool CUdpLoopback::Open() {
  Close();
  socket_ = OpenUdpSocket();
  // A socket that select cannot watch would wake nobody.
  const bool usable = IsSelectable(socket_) && SetNonBlocking(socket_) && BindToItself();
  if (!usable) Close();
  return usable;
}

void CUdpLoopback::Close() {
  if (socket_ != -1) close(socket_);
  socket_ = -1;
}

bool CUdpLoopback::BindToItself() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket_, generic, length) != 0) return false;
  if (getsockname(socket_, generic, &length) != 0) return false;
  if (connect(socket_, generic, length) != 0) return false;
  // What strangers sent between bind and connect is still queued.
  char scrap;
  while (recv(socket_, &scrap, sizeof scrap, 0) >= 0) {
  }
  return true;
}
