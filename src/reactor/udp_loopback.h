// The socket that another thread uses to end a select.
#ifndef GX_REACTOR_UDP_LOOPBACK_H
#define GX_REACTOR_UDP_LOOPBACK_H

#include "base/mutex_lock.h"
#include "base/scoped_descriptor.h"

// A non-blocking UDP socket on 127.0.0.1, at a port that the system chooses. It sends datagrams to itself and
// receives only its own, because any local process can send to a loopback port.
// Threads: any. The operations exclude each other, so that a datagram never goes to a descriptor number that
// was closed and reused for a connection. Only the select thread calls Read.
class CUdpLoopback {
 public:
  CUdpLoopback() = default;
  CUdpLoopback(const CUdpLoopback&) = delete;
  CUdpLoopback& operator=(const CUdpLoopback&) = delete;
  ~CUdpLoopback() = default;

  // Opens a new socket at a new port; datagrams queued in the old one are lost. Returns false when it could not
  // be opened.
  bool Create();
  // Like Create, but keeps an open socket.
  bool CreateIfNot();
  // Returns sendto's result, or 0 without a socket.
  int Write(const void* data, int length);
  // Returns recvfrom's result (-1 when nothing is queued), or 0 without a socket.
  int Read(void* buffer, int length);
  void Destroy();
  // Returns -1 without a socket.
  int GetHandle();

 private:
  bool Open() REQUIRES(mutex_);
  bool BindToItself() REQUIRES(mutex_);

  CStdMutex mutex_;
  gxbase::ScopedDescriptor socket_ GUARDED_BY(mutex_);
};

#endif  // GX_REACTOR_UDP_LOOPBACK_H
