// Descriptors: who closes them, and how sockets are opened.
#ifndef GX_BASE_DESCRIPTOR_H
#define GX_BASE_DESCRIPTOR_H

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace gxbase {

// Owns a descriptor, or none (-1), and closes it at its end.
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
  // Hands it over: the caller closes it.
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

// The functions below open close-on-exec descriptors: the host may start programs at any moment. Where the
// system cannot do that in one step, a program that is started between the two has the descriptor. They return
// none after a failure, and errno tells why.

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

// The next connection that waits at a listening socket.
inline Descriptor AcceptConnection(int listener) {
#ifdef SOCK_CLOEXEC
  return Descriptor(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
#else
  Descriptor accepted(accept(listener, nullptr, nullptr));
  if (accepted) fcntl(accepted.get(), F_SETFD, FD_CLOEXEC);
  return accepted;
#endif
}

// A second descriptor for the same thing, and never descriptor 0.
inline Descriptor Duplicate(int descriptor) { return Descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 1)); }

}  // namespace gxbase

#endif  // GX_BASE_DESCRIPTOR_H
