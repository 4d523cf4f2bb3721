// The stream over one connected TCP socket.
#ifndef GX_SOCK_SOCK_STREAM_H
#define GX_SOCK_SOCK_STREAM_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "object/object_monitor.h"
#include "reactor/tcp_task.h"
#include "stream/base_stream.h"

// Owns its socket, which it expects to be non-blocking. What would block is handed to the tracker as a task;
// while a task of one direction is pending, further calls in that direction return true with nothing done.
// Without a tracker, a call that would block waits. One connection does not hold the reactor's thread: what it
// reads and sends there in one turn has a bound, and its next turn comes after those of the others. A turn of
// reading also ends when the handler answers kReadStep with false: it had to wait for the far side. Every
// stream is disconnected before its last reference goes; see the destructor.
class CSockStream : public CBaseStream {
 public:
  // Live streams of the process.
  static std::atomic<std::int64_t> s_socket_stream_count;

  // `tracker` may be null. `connected`: the socket is connected already.
  CSockStream(ITCPTaskTracker* tracker, int socket, StreamType type, bool connected);
  // Without a socket; SetSocket and SetTracker follow.
  explicit CSockStream(StreamType type);
  // Closes the socket. A stream that was never disconnected disconnects now, with kStreamDestroyed.
  ~CSockStream() override;

  // Takes over `socket`; one that is held already is closed first. Always true.
  bool SetSocket(int socket, bool connected);
  // Not owned. Returns the previous one.
  ITCPTaskTracker* SetTracker(ITCPTaskTracker* tracker);
  // The socket has become ready for `op`. Reactor's work thread; the caller holds a reference.
  void do_op(SelectOp op);

  // Shuts the socket down both ways and tells the handler, once. At an orderly end (HasEnded) of which the peer
  // has not received everything yet, a CTCPLingerTask takes the receiving direction over instead. Never throws.
  bool Disconnect_impl(unsigned int reason) override;
  // The socket's own and its peer's address as text, "127.0.0.1:22".
  const char* GetStreamName_impl() const override { return local_name_.c_str(); }
  const char* GetPeerName_impl() const override { return peer_name_.c_str(); }

  bool read(char* data, long length, long& count, long timeout_ms) override;
  bool peek(char* data, long length, long& count, long timeout_ms) override;
  bool write(const char* data, long length, long& count, long timeout_ms, long flags) override;
  unsigned long SendRout(bool from_reactor) override;
  bool read_done(IBuffer* buffer, unsigned long length) override;
  bool write_done(IBuffer* buffer, unsigned long length) override;
  bool read_step(IBuffer* buffer, unsigned long length) override;
  bool peek_done(IBuffer* buffer, unsigned long length) override;
  bool write_step(IBuffer* buffer, unsigned long length) override;
  bool may_step() override;
  // `flags`: 0 or MSG_PEEK.
  virtual bool readbyflag(char* data, long length, long& count, long timeout_ms, int flags);

 private:
  static constexpr int kNoSocket = 0;
  // What a thread reads or sends for this stream in one turn, which ends in the tracker.
  static constexpr std::int64_t kReadTurnBytes = 64 * 1024;
  static constexpr std::int64_t kSendTurnBytes = 256 * 1024;

  void ReadNames();
  CTCPTask TaskFor(SelectOp op);
  bool WaitInTracker(const CTCPTask& task, std::atomic<bool>& pending);
  bool Notify(NotifyType type, IBuffer* buffer, unsigned long length, bool without_handler);

  std::string local_name_;
  std::string peer_name_;
  std::atomic<bool> read_pending_{false};
  std::atomic<bool> write_pending_{false};
  std::atomic<std::int64_t> read_budget_{kReadTurnBytes};  // left of this turn
  std::atomic<bool> yields_{false};                        // the handler had to wait: the turn is over
  // The same: of the reactor's turn, and of what another thread sends itself. That one may find a long queue,
  // too, and has its own work to go back to.
  std::atomic<std::int64_t> turn_budget_{kSendTurnBytes};
  std::atomic<std::int64_t> own_budget_{kSendTurnBytes};
  std::atomic<std::thread::id> reactor_{};
  std::atomic<int> socket_{kNoSocket};
  std::atomic<ITCPTaskTracker*> tracker_{nullptr};
  OBJECT_MONITOR<CSockStream> monitor_;
};

#endif  // GX_SOCK_SOCK_STREAM_H
