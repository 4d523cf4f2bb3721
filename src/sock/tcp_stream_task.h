// The tasks with which a socket stream waits for its socket or for its turn.
#ifndef GX_SOCK_TCP_STREAM_TASK_H
#define GX_SOCK_TCP_STREAM_TASK_H

#include "object/object_monitor.h"
#include "reactor/tcp_task.h"

class CSockStream;

// Holds a reference to its stream. When run, it lets the stream continue or disconnects it: with kStreamTimeout
// when the stream's time limit has passed, with kStreamSocketError when the socket is in error.
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

// Lets its stream continue reading in the tracker's next pass, after all tasks that are ready by then. For a
// stream with bytes that it has already taken from the socket, which select cannot report.
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
