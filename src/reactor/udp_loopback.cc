#include "reactor/udp_loopback.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>

#include "reactor/descriptor_set.h"

bool CUdpLoopback::Create() {
  CStdLock lock(mutex_);
  return Open();
}

bool CUdpLoopback::CreateIfNot() {
  CStdLock lock(mutex_);
  return socket_ || Open();
}

int CUdpLoopback::Write(const void* data, int length) {
  CStdLock lock(mutex_);
  if (!socket_) return 0;
  // Without an address: the socket is connected to itself, and some systems refuse an address then.
  return static_cast<int>(sendto(socket_.get(), data, static_cast<std::size_t>(length), 0, nullptr, 0));
}

int CUdpLoopback::Read(void* buffer, int length) {
  CStdLock lock(mutex_);
  if (!socket_) return 0;
  const auto got = recvfrom(socket_.get(), buffer, static_cast<std::size_t>(length), 0, nullptr, nullptr);
  if (got == -1 && errno == ENOTCONN) Open();
  return static_cast<int>(got);
}

void CUdpLoopback::Destroy() {
  CStdLock lock(mutex_);
  socket_.Close();
}

int CUdpLoopback::GetHandle() {
  CStdLock lock(mutex_);
  return socket_.get();
}

bool CUdpLoopback::Open() {
  socket_.Close();
  socket_ = gxbase::OpenSocket(AF_INET, SOCK_DGRAM, 0);
  // select could not watch a descriptor that is too large.
  const bool usable = IsSelectable(socket_.get()) && BindToItself();
  if (!usable) socket_.Close();
  return usable;
}

bool CUdpLoopback::BindToItself() {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(socket_.get(), generic, length) != 0) return false;
  if (getsockname(socket_.get(), generic, &length) != 0) return false;
  if (connect(socket_.get(), generic, length) != 0) return false;
  // Discard datagrams from other processes that arrived between bind and connect.
  char scrap;
  while (recv(socket_.get(), &scrap, sizeof scrap, 0) >= 0) {
  }
  return true;
}
