#include "common/borrowed_fd.h"

#include <fcntl.h>

#include "common/descriptor.h"

namespace gxtool {

BorrowedFd::BorrowedFd(int fd) : fd_(fd), flags_(Checked(fcntl(fd, F_GETFL), "stream descriptor")) {
  fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
}

BorrowedFd::~BorrowedFd() { fcntl(fd_, F_SETFL, flags_); }

int BorrowedFd::Duplicate() const { return Checked(fcntl(fd_, F_DUPFD_CLOEXEC, 3), "stream descriptor"); }

}  // namespace gxtool
