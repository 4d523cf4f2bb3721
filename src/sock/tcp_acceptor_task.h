// The task that waits for the next connection of an acceptor.
#ifndef GX_SOCK_TCP_ACCEPTOR_TASK_H
#define GX_SOCK_TCP_ACCEPTOR_TASK_H

#include <cstdint>

#include "reactor/tcp_task.h"

class CSockAcceptor;

// Holds a reference to the acceptor. Calls Accept when the listening socket is readable or the time limit has
// passed.
class CTCPAcceptorTask final : public ITCPTask {
 public:
  CTCPAcceptorTask();
  // `timeout_ms` counts from now; all ones: no limit.
  CTCPAcceptorTask(int listen_socket, CSockAcceptor* acceptor, unsigned long timeout_ms);

  bool Done() override;
  bool timeout() override { return timeleft() == 0; }
  unsigned long timeleft() override;

 private:
  ~CTCPAcceptorTask() override;

  const CRefObj<CSockAcceptor> acceptor_;
  const std::uint64_t listening_;  // the start of the acceptor that this task belongs to
  const std::uint64_t timeout_ms_;
  const std::uint64_t started_ms_;
};

#endif  // GX_SOCK_TCP_ACCEPTOR_TASK_H
