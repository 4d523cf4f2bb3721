#include "sock/tcp_stream_task.h"

#include <time.h>

#include "base/clock.h"
#include "runtime/gxmod_runtime.h"
#include "sock/sock_stream.h"

GX_MONITOR_CLASS(3, CTCPStreamTask);

CTCPStreamTask::CTCPStreamTask(int descriptor, SelectOp op, CSockStream* stream)
    : ITCPTask(descriptor, op), stream_(stream) {
  if (op == kSelectNone) write_interest = kWaitReadable;
}

CTCPStreamTask::~CTCPStreamTask() = default;

bool CTCPStreamTask::Done() {
  if (timed_out_) {
    if (stream_) stream_->Disconnect(kStreamTimeout);
    return true;
  }
  switch (selectop) {
    case kSelectReadable:
    case kSelectWritable:
    case kSelectConnect:
      stream_->do_op(selectop);
      break;
    case kSelectError:
      stream_->Disconnect(kStreamSocketError);
      break;
    case kSelectNone: {
      const timespec pause{0, 1'000'000};
      nanosleep(&pause, nullptr);
      break;
    }
    default:
      break;
  }
  return true;
}

bool CTCPStreamTask::timeout() { return timeleft() == 0; }

unsigned long CTCPStreamTask::timeleft() {
  if (timed_out_) return 0;
  const unsigned long left = stream_ && stream_->HasLimits() ? stream_->timeleft(gettickcount()) : kNoTimeout;
  timed_out_ = left == 0;
  if (timed_out_) GXModLog(kGXModLogError, "[CTCPStreamTask::timeout] read/write timeout");
  return left;
}

CTCPTurnTask::CTCPTurnTask(CSockStream* stream) : ITCPTask(-1, kSelectReadable), stream_(stream) {}

CTCPTurnTask::~CTCPTurnTask() = default;

bool CTCPTurnTask::Done() {
  stream_->do_op(kSelectReadable);
  return true;
}
