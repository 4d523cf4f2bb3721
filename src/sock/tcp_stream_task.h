// The tasks with which a socket stream waits for its socket, and for its turn.
#ifndef GX_SOCK_TCP_STREAM_TASK_H
#define GX_SOCK_TCP_STREAM_TASK_H

#include "object/object_monitor.h"
#include "reactor/tcp_task.h"

class CSockStream;

// Keeps its stream alive. When it is done it lets the stream go on, or disconnects it: with kStreamTimeout when
// the stream's time limit has passed, with kStreamSocketError when the socket is in error.
class CTCPStreamTask final : public ITCPTask {
 public:
  CTCPStreamTask() : CTCPStreamTask(-1, kSelectNone, nullptr) {}
  CTCPStreamTask(int descriptor, SelectOp op, CSockStream* stream);

  bool Done() override;
  bool timeout() override;
  unsigned long timeleft() override;

 private:
  ~CTCPStreamTask() override;

  const CRefObj<CSockStream> stream_;
  bool timed_out_ = false;
  OBJECT_MONITOR<CTCPStreamTask> monitor_;
};

// Lets its stream read on in the tracker's next pass, after all who are ready by then. For a stream that has
// bytes which are no longer in the socket, so that select knows nothing of them.
class CTCPTurnTask final : public ITCPTask {
 public:
  explicit CTCPTurnTask(CSockStream* stream);

  bool Done() override;
  bool timeout() override { return true; }  // due at once
  unsigned long timeleft() override { return 0; }

 private:
  ~CTCPTurnTask() override;

  const CRefObj<CSockStream> stream_;
};

#endif  // GX_SOCK_TCP_STREAM_TASK_H
