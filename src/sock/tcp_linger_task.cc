#include "sock/tcp_linger_task.h"

#include <errno.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#if defined(__linux__)
#include <linux/sockios.h>
#endif

#include <new>
#include <utility>

#include "base/clock.h"
#include "reactor/descriptor_set.h"

namespace {

constexpr std::uint64_t kPatienceMs = 60'000;
constexpr int kDropsPerPass = 16;

// Bytes that the peer has not acknowledged, including our end of stream; 0 where the system does not tell.
int UnacknowledgedBytes(int socket) {
  int bytes = 0;
#if defined(SIOCOUTQ)
  if (ioctl(socket, SIOCOUTQ, &bytes) != 0) return 0;
#elif defined(SO_NWRITE)
  socklen_t length = sizeof bytes;
  if (getsockopt(socket, SOL_SOCKET, SO_NWRITE, &bytes, &length) != 0) return 0;
#else
  static_cast<void>(socket);
#endif
  return bytes;
}

}  // namespace

bool CTCPLingerTask::Start(int socket, ITCPTaskTracker* tracker) try {
  if (tracker == nullptr || UnacknowledgedBytes(socket) == 0) return false;
  gxbase::ScopedDescriptor own = gxbase::Duplicate(socket);
  if (!IsSelectable(own.get())) return false;
  const CRefObj<CTCPLingerTask> task(new CTCPLingerTask(std::move(own), *tracker));
  shutdown(socket, SHUT_WR);
  return tracker->AddTask(CTCPTask(task.get()));
} catch (const std::bad_alloc&) {
  return false;
}

CTCPLingerTask::CTCPLingerTask(gxbase::ScopedDescriptor own, ITCPTaskTracker& tracker)
    : ITCPTask(own.get(), kSelectReadable),
      own_(std::move(own)),
      tracker_(tracker),
      last_progress_ms_(gettickcount()) {}

// A stream may still wait until the socket is readable; the shutdown wakes it.
CTCPLingerTask::~CTCPLingerTask() { shutdown(own_.get(), SHUT_RDWR); }

bool CTCPLingerTask::Done() {
  if (!HasPeerEnded() && !timeout()) tracker_.AddTask(CTCPTask(this));
  return true;
}

bool CTCPLingerTask::timeout() { return timeleft() == 0; }

unsigned long CTCPLingerTask::timeleft() {
  const std::uint64_t now_ms = gettickcount();
  const int unacknowledged_bytes = UnacknowledgedBytes(socket);
  if (unacknowledged_bytes != unacknowledged_bytes_) last_progress_ms_ = now_ms;
  unacknowledged_bytes_ = unacknowledged_bytes;
  const std::uint64_t due_ms = last_progress_ms_ + kPatienceMs;
  return due_ms > now_ms ? due_ms - now_ms : 0;
}

bool CTCPLingerTask::HasPeerEnded() const {
  char dropped[4096];
  for (int i = 0; i < kDropsPerPass; ++i) {
    const ssize_t got = recv(socket, dropped, sizeof dropped, MSG_DONTWAIT);
    if (got == 0) return true;
    if (got < 0) return errno != EAGAIN && errno != EINTR;
  }
  return false;
}
