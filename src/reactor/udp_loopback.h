// The socket that ends a select from another thread.
#ifndef GX_REACTOR_UDP_LOOPBACK_H
#define GX_REACTOR_UDP_LOOPBACK_H

#include "base/descriptor.h"
#include "base/mutex_lock.h"

// A non-blocking UDP socket on 127.0.0.1, on a port of the system's choice, that sends datagrams to itself and
// receives from nobody else: any process of the machine can send to a loopback port.
// Threads: any. The operations exclude each other, so that a datagram never goes to a descriptor that has been
// closed and given to somebody's connection meanwhile. Read belongs to the thread that selects.
class CUdpLoopback {
 public:
  CUdpLoopback() = default;
  CUdpLoopback(const CUdpLoopback&) = delete;
  CUdpLoopback& operator=(const CUdpLoopback&) = delete;
  ~CUdpLoopback() = default;

  // Opens the socket anew, on a new port; what an open one had queued is lost. False: there is none now.
  bool Create();
  // Keeps an open socket.
  bool CreateIfNot();
  // What sendto returned, or 0 without a socket.
  int Write(const void* data, int length);
  // What recvfrom returned (-1 when nothing is queued), or 0 without a socket.
  int Read(void* buffer, int length);
  void Destroy();
  // -1 without a socket.
  int GetHandle();

 private:
  bool Open() REQUIRES(mutex_);
  bool BindToItself() REQUIRES(mutex_);

  CStdMutex mutex_;
  gxbase::Descriptor socket_ GUARDED_BY(mutex_);
};

#endif  // GX_REACTOR_UDP_LOOPBACK_H
