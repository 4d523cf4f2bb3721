// A listening TCP socket that turns every connection into a stream.
#ifndef GX_SOCK_SOCK_ACCEPTOR_H
#define GX_SOCK_SOCK_ACCEPTOR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string>

#include "base/mutex_lock.h"
#include "reactor/tcp_task.h"
#include "sock/sock_stream.h"

// States: stopped -> StartListen -> running -> Stop (or a hard failure to accept) -> stopped, and so on.
// Not counted: AddRef returns 1 and Release 0, the acceptor lives inside its owner. A subclass may count.
// Threads: StartListen and Stop on the owner's thread; Accept and the virtual operations that it calls there,
// too, for connections that are waiting already, and on the reactor's work thread afterwards. No lock of the
// acceptor is held while they run.
class CSockAcceptor : public IReference {
 public:
  CSockAcceptor() = default;
  CSockAcceptor(const CSockAcceptor&) = delete;
  CSockAcceptor& operator=(const CSockAcceptor&) = delete;
  ~CSockAcceptor() override;

  std::int64_t AddRef() override { return 1; }
  std::int64_t Release() override { return 0; }

  // `host` is a numeric address, null means any; port 0 lets the system choose. `tracker` is not owned and may
  // be null: only connections that are waiting already are then accepted. True at once while running.
  virtual bool StartListen(const char* host, int port, ITCPTaskTracker* tracker, bool reuse_port);
  // "host:port", "[ipv6]:port" or "[ipv6]".
  virtual bool StartListen(const char* host_port, ITCPTaskTracker* tracker);
  // Closes the port and ends a pause of Accept. Always true.
  virtual bool Stop();
  // A connection has come. False ends accepting. By default tells the stream's handler that it is connected.
  virtual bool OnAccept(CRefObj<CSockStream> stream);
  // The stream for an accepted socket, which it takes over, also when it throws. False: the socket stays open.
  virtual bool CreateStream(CRefObj<CSockStream>& out, int socket, ITCPTaskTracker* tracker);
  virtual bool CreateStream(CRefObj<CSockStream>& out, IBaseStream::StreamType type);
  // "127.0.0.1:40123"; empty before the first StartListen. Changed by StartListen only.
  virtual const char* GetAddress() const { return address_.c_str(); }

  // Accepts every waiting connection, then waits for the next in the tracker. When descriptors have run out it
  // pauses for 5 s, in the tracker or, without one, on the calling thread. A connection that meets an exception
  // is closed, and the next one accepted. False: the acceptor has stopped, the cause is logged.
  bool Accept();
  // Waits for Stop. True: the time has passed, or the wait failed.
  bool WaitTimeout(unsigned int ms);
  bool IsRunning() const { return running_; }
  // Counts the starts, so that a task can tell whether it belongs to the present one.
  std::uint64_t Listening() const { return listening_; }

  // A listening socket, or -1.
  static int ListenSock(const char* host, int port, bool reuse_port);

 private:
  enum Until { kForConnections, kForDescriptors };

  int AcceptOne();
  bool TakeConnection(int socket);
  bool WaitInTracker(Until until);
  bool Pause();
  void LogFailure(const char* tag, const char* what, int error, int line);

  std::string address_;
  int port_ = 0;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> listening_{0};
  std::atomic<ITCPTaskTracker*> tracker_{nullptr};
  CStdMutex mutex_;  // also keeps accept from a descriptor that Stop has closed
  std::condition_variable stopped_;
  int listen_socket_ GUARDED_BY(mutex_) = -1;
};

#endif  // GX_SOCK_SOCK_ACCEPTOR_H
