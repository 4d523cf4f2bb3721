// A listening TCP socket that makes a stream for each connection.
#ifndef GX_SOCK_SOCK_ACCEPTOR_H
#define GX_SOCK_SOCK_ACCEPTOR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string>

#include "base/mutex_lock.h"
#include "base/scoped_descriptor.h"
#include "reactor/tcp_task.h"
#include "sock/sock_stream.h"

// States: stopped -> StartListen -> running -> Stop (or a failure of the listening socket) -> stopped, and so
// on.
// Ownership: the acceptor is a member of its owner and not reference-counted: AddRef returns 1 and Release 0. A
// subclass may count.
// Threads: StartListen and Stop run on the owner's thread. Accept and the virtual functions that it calls run
// there for the connections in the backlog, and later on the reactor's work thread. No lock is held during
// these calls.
class CSockAcceptor : public IReference {
 public:
  CSockAcceptor() = default;
  CSockAcceptor(const CSockAcceptor&) = delete;
  CSockAcceptor& operator=(const CSockAcceptor&) = delete;
  ~CSockAcceptor() override;

  std::int64_t AddRef() override { return 1; }
  std::int64_t Release() override { return 0; }

  // `host` is a numeric address; null means any address. Port 0 lets the system choose. `tracker` is borrowed
  // and may be null: then only the connections in the backlog are accepted. Returns true at once while running.
  // On false there is no listening socket and no address. Also false when the system does not let the process
  // accept.
  virtual bool StartListen(const char* host, int port, ITCPTaskTracker* tracker, bool reuse_port);
  // "host:port", "[ipv6]:port" or "[ipv6]".
  virtual bool StartListen(const char* host_port, ITCPTaskTracker* tracker);
  // Closes the port and ends Accept's pause. Always true.
  virtual bool Stop();
  // Handles a new connection. False ends accepting. The default tells the stream's handler that it is
  // connected.
  virtual bool OnAccept(CRefObj<CSockStream> stream);
  // Creates the stream for an accepted socket and passes the socket's ownership to it, also when it throws. On
  // false the socket stays open.
  virtual bool CreateStream(CRefObj<CSockStream>& out, int socket, ITCPTaskTracker* tracker);
  virtual bool CreateStream(CRefObj<CSockStream>& out, IBaseStream::StreamType type);
  // For example "127.0.0.1:40123"; empty before the first StartListen and after a failed one. Only StartListen
  // changes it.
  virtual const char* GetAddress() const { return address_.c_str(); }

  // Accepts all connections in the backlog, then waits in the tracker for the next. When descriptors run out it
  // pauses for 5 s, in the tracker or, without one, on the calling thread. If handling a connection throws,
  // that connection is closed and the next one accepted. Returns false when a connection could not be accepted
  // and the acceptor pauses in the tracker as above; also when it has stopped because the listening socket
  // failed, memory for waiting ran out, or OnAccept returned false. The cause is logged.
  bool Accept();
  // Waits for Stop. Returns true when the time has passed or the wait failed.
  bool WaitTimeout(unsigned int ms);
  bool IsRunning() const { return running_; }
  // Counts the starts, so that a task can check that it belongs to the current one.
  std::uint64_t Listening() const { return listening_; }

  // Returns a listening socket, or -1.
  static int ListenSock(const char* host, int port, bool reuse_port);

 private:
  enum Until { kForConnections, kForTime };
  enum Outcome {
    kTaken,          // one connection was accepted or rejected; more may wait
    kNobodyWaits,    // the backlog is empty, or the acceptor has stopped
    kNoDescriptors,  // no descriptors, or the system is out of memory
    kFailed,         // one connection could not be accepted; the cause is logged
    kEnded,          // OnAccept returned false, or the listening socket failed
  };

  Outcome AcceptWaiting();
  gxbase::ScopedDescriptor AcceptOne();
  Outcome TakeConnection(gxbase::ScopedDescriptor connection);
  bool WaitAfter(Outcome outcome);
  bool WaitInTracker(Until until);
  bool Pause();
  bool ClosePort();  // false when already stopped
  void WakeTracker();
  void LogFailure(const char* tag, const char* what, int error, int line);

  std::string address_;
  int port_ = 0;
  std::atomic<bool> running_{false};
  std::atomic<std::uint64_t> listening_{0};
  std::atomic<ITCPTaskTracker*> tracker_{nullptr};
  CStdMutex mutex_;  // also prevents accept on a descriptor that Stop has closed
  std::condition_variable stopped_;
  gxbase::ScopedDescriptor listen_socket_ GUARDED_BY(mutex_);
};

#endif  // GX_SOCK_SOCK_ACCEPTOR_H
