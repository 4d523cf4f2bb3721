#include "common/descriptor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace gxtool {

int Checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

void Descriptor::Reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

Pipe MakePipe() {
  int ends[2];
#ifdef __linux__
  Checked(pipe2(ends, O_CLOEXEC), "pipe");
#else
  Checked(pipe(ends), "pipe");
  for (int fd : ends) fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::pair<Descriptor, Descriptor> MakeSocketPair() {
  int ends[2];
#ifdef __linux__
  Checked(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
#else
  Checked(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), "socketpair");
  for (int fd : ends) fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Pipe MakeSocketPipe() {
  auto [read, write] = MakeSocketPair();
  Checked(shutdown(read.get(), SHUT_WR), "shutdown");
  return {std::move(read), std::move(write)};
}

Descriptor Duplicate(int fd) { return Descriptor(Checked(fcntl(fd, F_DUPFD_CLOEXEC, 3), "dup")); }

void SetNonBlocking(int fd, bool on) {
  const int flags = Checked(fcntl(fd, F_GETFL), "fcntl");
  Checked(fcntl(fd, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK), "fcntl");
}

void FillStandardDescriptors() {
  for (int fd = 0; fd <= 2; ++fd) {
    // open returns the lowest free number.
    if (fcntl(fd, F_GETFD) < 0) Checked(open("/dev/null", O_RDWR), "/dev/null");
  }
}

Descriptor TakeStandardOutput() {
  Descriptor output = Duplicate(1);
  Checked(dup2(2, 1), "dup2");
  return output;
}

Descriptor TakeStandardInput() {
  Descriptor input = Duplicate(0);
  Descriptor null(Checked(open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null"));
  Checked(dup2(null.get(), 0), "dup2");
  return input;
}

}  // namespace gxtool
