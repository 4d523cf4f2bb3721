// The task with which a socket stream waits for its socket.
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

#endif  // GX_SOCK_TCP_STREAM_TASK_H
