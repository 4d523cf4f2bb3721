#include "sock/tcp_acceptor_task.h"

#include "base/clock.h"
#include "sock/sock_acceptor.h"
#include "stream/ibase_stream.h"

CTCPAcceptorTask::CTCPAcceptorTask()
    : ITCPTask(-1, kSelectNone), listening_(0), timeout_ms_(kNoTimeout), started_ms_(gettickcount()) {
  write_interest = kWaitReadable;
}

CTCPAcceptorTask::CTCPAcceptorTask(int listen_socket, CSockAcceptor* acceptor, unsigned long timeout_ms)
    : ITCPTask(listen_socket, kSelectAccept),
      acceptor_(acceptor),
      listening_(acceptor != nullptr ? acceptor->Listening() : 0),
      timeout_ms_(timeout_ms),
      started_ms_(gettickcount()) {}

CTCPAcceptorTask::~CTCPAcceptorTask() = default;

bool CTCPAcceptorTask::Done() {
  // A task from before a Stop would add a second waiting task on each restart.
  if (acceptor_ && acceptor_->Listening() == listening_) acceptor_->Accept();
  return true;
}

unsigned long CTCPAcceptorTask::timeleft() {
  if (timeout_ms_ == kNoTimeout) return kNoTimeout;
  const std::uint64_t now_ms = gettickcount();
  const std::uint64_t due_ms = started_ms_ + timeout_ms_;
  return due_ms > now_ms ? due_ms - now_ms : 0;
}
