// The stream of one connected TCP socket.
#ifndef GX_SOCK_SOCK_STREAM_H
#define GX_SOCK_SOCK_STREAM_H

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "object/object_monitor.h"
#include "reactor/tcp_task.h"
#include "stream/base_stream.h"

// Owns its socket, which must be non-blocking. An operation that would block becomes a task in the tracker;
// while a task of one direction is pending, further calls in that direction return true without moving data.
// Without a tracker, the call waits. The bytes that are read and sent for one connection in a turn of the
// reactor's thread are limited; its next turn comes after those of the other connections. A turn of reading
// also ends when the handler answers kReadStep with false: it had to wait for the far side. Every stream is
// disconnected before its last reference is dropped; see the destructor.
class CSockStream : public CBaseStream {
 public:
  // Number of live streams in the process.
  static std::atomic<std::int64_t> s_socket_stream_count;

  // `tracker` may be null. `connected`: the socket is already connected.
  CSockStream(ITCPTaskTracker* tracker, int socket, StreamType type, bool connected);
  // Starts without a socket; call SetSocket and SetTracker next.
  explicit CSockStream(StreamType type);
  // Closes the socket. Disconnects a stream that was never disconnected, with kStreamDestroyed.
  ~CSockStream() override;

  // Takes ownership of `socket` and closes the previous one. Always true.
  bool SetSocket(int socket, bool connected);
  // Borrows `tracker`. Returns the previous one.
  ITCPTaskTracker* SetTracker(ITCPTaskTracker* tracker);
  // The socket is ready for `op`. Reactor's work thread; the caller holds a reference.
  void do_op(SelectOp op);

  // Shuts the socket down in both directions and tells the handler, once. At a normal end (HasEnded), while the
  // peer has not yet received everything, a CTCPLingerTask takes over the receiving direction. Never throws.
  bool Disconnect_impl(unsigned int reason) override;
  // The addresses of the socket and of its peer as text: "127.0.0.1:22".
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
  // The maximum that a thread reads or sends for this stream in one turn; the stream continues in the tracker.
  static constexpr std::int64_t kReadTurnBytes = 64 * 1024;
  static constexpr std::int64_t kLeastReadBytes = 4096;  // a turn with less left ends
  static constexpr std::int64_t kSendTurnBytes = 256 * 1024;

  void ReadNames();
  CTCPTask TaskFor(SelectOp op);
  bool WaitInTracker(const CTCPTask& task, std::atomic<bool>& pending);
  bool Notify(NotifyType type, IBuffer* buffer, unsigned long length, bool without_handler);

  std::string local_name_;
  std::string peer_name_;
  std::atomic<bool> read_pending_{false};
  std::atomic<bool> write_pending_{false};
  std::atomic<std::int64_t> read_budget_{kReadTurnBytes};  // bytes left in this turn
  std::atomic<bool> yields_{false};  // the handler had to wait for the far side: the turn is over
  // Bytes left for sending: in the reactor's turn, and for another thread that sends directly. Such a thread
  // may find a long queue, too, and has other work to do.
  std::atomic<std::int64_t> turn_budget_{kSendTurnBytes};
  std::atomic<std::int64_t> own_budget_{kSendTurnBytes};
  std::atomic<std::thread::id> reactor_{};
  std::atomic<int> socket_{kNoSocket};
  std::atomic<ITCPTaskTracker*> tracker_{nullptr};
  OBJECT_MONITOR<CSockStream> monitor_;
};

#endif  // GX_SOCK_SOCK_STREAM_H
