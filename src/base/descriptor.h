// Ownership of descriptors, and how sockets are opened.
#ifndef GX_BASE_DESCRIPTOR_H
#define GX_BASE_DESCRIPTOR_H

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace gxbase {

// Owns a descriptor, or is empty (-1), and closes it when destroyed.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(other.Take()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Close();
    value_ = other.Take();
    return *this;
  }
  ~Descriptor() { Close(); }

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
// they return an empty Descriptor and set errno.

// A non-blocking socket.
inline Descriptor OpenSocket(int family, int type, int protocol) {
#ifdef SOCK_CLOEXEC
  return Descriptor(socket(family, type | SOCK_CLOEXEC | SOCK_NONBLOCK, protocol));
#else
  Descriptor opened(socket(family, type, protocol));
  if (!opened || !SetNonBlocking(opened.get())) return {};
  fcntl(opened.get(), F_SETFD, FD_CLOEXEC);
  return opened;
#endif
}

// Accepts the next connection in the backlog of a listening socket.
inline Descriptor AcceptConnection(int listener) {
#ifdef SOCK_CLOEXEC
  return Descriptor(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
#else
  Descriptor accepted(accept(listener, nullptr, nullptr));
  if (accepted) fcntl(accepted.get(), F_SETFD, FD_CLOEXEC);
  return accepted;
#endif
}

// Duplicates a descriptor; the new number is at least 1.
inline Descriptor Duplicate(int descriptor) { return Descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 1)); }

}  // namespace gxbase

#endif  // GX_BASE_DESCRIPTOR_H
