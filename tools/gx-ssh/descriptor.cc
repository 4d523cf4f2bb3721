#include "gx-ssh/descriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace gxtool {
namespace {

int Check(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace

void Descriptor::Reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

Pipe MakePipe() {
  int ends[2];
#ifdef __linux__
  Check(pipe2(ends, O_CLOEXEC), "pipe");
#else
  Check(pipe(ends), "pipe");
  for (int fd : ends) fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::pair<Descriptor, Descriptor> MakeSocketPair() {
  int ends[2];
#ifdef __linux__
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
#else
  Check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), "socketpair");
  for (int fd : ends) fcntl(fd, F_SETFD, FD_CLOEXEC);
#endif
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Pipe MakeSocketPipe() {
  auto [read, write] = MakeSocketPair();
  Check(shutdown(read.get(), SHUT_WR), "shutdown");
  return {std::move(read), std::move(write)};
}

Descriptor Duplicate(int fd) { return Descriptor(Check(fcntl(fd, F_DUPFD_CLOEXEC, 3), "dup")); }

void SetNonBlocking(int fd, bool on) {
  const int flags = Check(fcntl(fd, F_GETFL), "fcntl");
  Check(fcntl(fd, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK), "fcntl");
}

void WriteText(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t taken = write(fd, text.data(), text.size());
    pollfd wait{fd, POLLOUT, 0};
    if (taken >= 0) {
      text.remove_prefix(static_cast<std::size_t>(taken));
    } else if (errno == EAGAIN) {
      poll(&wait, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

void FillStandardDescriptors() {
  // Opening takes the lowest free number, so this ends at the first one above the standard three.
  int fd = Check(open("/dev/null", O_RDWR), "/dev/null");
  while (fd <= 2) fd = Check(open("/dev/null", O_RDWR), "/dev/null");
  close(fd);
}

Descriptor TakeStandardOutput() {
  Descriptor output = Duplicate(1);
  Check(dup2(2, 1), "dup2");
  return output;
}

Descriptor TakeStandardInput() {
  Descriptor input = Duplicate(0);
  Descriptor null(Check(open("/dev/null", O_RDONLY | O_CLOEXEC), "/dev/null"));
  Check(dup2(null.get(), 0), "dup2");
  return input;
}

}  // namespace gxtool
