// Ownership of descriptors, and how sockets are opened.
#ifndef GX_BASE_SCOPED_DESCRIPTOR_H
#define GX_BASE_SCOPED_DESCRIPTOR_H

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace gxbase {

// Owns a descriptor, or is empty (-1), and closes it when destroyed.
class ScopedDescriptor {
 public:
  ScopedDescriptor() = default;
  explicit ScopedDescriptor(int value) : value_(value) {}
  ScopedDescriptor(ScopedDescriptor&& other) noexcept : value_(other.Take()) {}
  ScopedDescriptor& operator=(ScopedDescriptor&& other) noexcept {
    Close();
    value_ = other.Take();
    return *this;
  }
  ~ScopedDescriptor() { Close(); }

  explicit operator bool() const { return value_ >= 0; }
  int get() const { return value_; }
  // Releases it: the caller closes it.
  int Take() { return std::exchange(value_, -1); }
  void Close() {
    if (value_ >= 0) close(Take());
  }

 private:
  int value_ = -1;
};

inline bool SetNonBlocking(int descriptor) {
  int on = 1;
  return ioctl(descriptor, FIONBIO, &on) == 0;
}

// The functions below open close-on-exec descriptors, because the host may start programs at any moment. Where
// the system needs two calls for that, a program started between them inherits the descriptor. After a failure
// they return an empty ScopedDescriptor and set errno.

// A non-blocking socket.
inline ScopedDescriptor OpenSocket(int family, int type, int protocol) {
#ifdef SOCK_CLOEXEC
  return ScopedDescriptor(socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
#else
  ScopedDescriptor opened(socket(family, type, protocol));
  if (!opened || !SetNonBlocking(opened.get())) return {};
  fcntl(opened.get(), F_SETFD, FD_CLOEXEC);
  return opened;
#endif
}

// Accepts the next connection in the backlog of a listening socket.
inline ScopedDescriptor AcceptConnection(int listener) {
#ifdef SOCK_CLOEXEC
  return ScopedDescriptor(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
#else
  ScopedDescriptor accepted(accept(listener, nullptr, nullptr));
  if (accepted) fcntl(accepted.get(), F_SETFD, FD_CLOEXEC);
  return accepted;
#endif
}

// Duplicates a descriptor; the new number is at least 1.
inline ScopedDescriptor Duplicate(int descriptor) {
  return ScopedDescriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 1));
}

}  // namespace gxbase

#endif  // GX_BASE_SCOPED_DESCRIPTOR_H
