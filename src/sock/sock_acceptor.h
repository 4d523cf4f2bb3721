// A listening TCP socket that turns every connection into a stream.
#ifndef GX_SOCK_SOCK_ACCEPTOR_H
#define GX_SOCK_SOCK_ACCEPTOR_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string>

#include "base/descriptor.h"
#include "base/mutex_lock.h"
#include "reactor/tcp_task.h"
#include "sock/sock_stream.h"

// States: stopped -> StartListen -> running -> Stop (or a failure of the port itself) -> stopped, and so on.
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
  // be null: only connections that are waiting already are then accepted. True at once while running. False:
  // nobody listens, and there is no address. A system that lets nobody accept shows here.
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
  // "127.0.0.1:40123"; empty before the first StartListen and after one that failed. Changed by StartListen
  // only.
  virtual const char* GetAddress() const { return address_.c_str(); }

  // Accepts every waiting connection, then waits for the next in the tracker. When descriptors have run out it
  // pauses for 5 s, in the tracker or, without one, on the calling thread. A connection that meets an exception
  // is closed, and the next one accepted. False: a connection could not be accepted, and the acceptor pauses in
  // the tracker as above; or it has stopped, because the listening socket failed, there was no memory to wait,
  // or OnAccept refused. The cause is logged.
  bool Accept();
  // Waits for Stop. True: the time has passed, or the wait failed.
  bool WaitTimeout(unsigned int ms);
  bool IsRunning() const { return running_; }
  // Counts the starts, so that a task can tell whether it belongs to the present one.
  std::uint64_t Listening() const { return listening_; }

  // A listening socket, or -1.
  static int ListenSock(const char* host, int port, bool reuse_port);

 private:
  enum Until { kForConnections, kForTime };
  enum Outcome {
    kTaken,          // one connection was, or was refused; the next one may wait
    kNobodyWaits,    // or the acceptor has stopped meanwhile
    kNoDescriptors,  // or no memory in the system
    kFailed,         // one connection could not be accepted; the cause is logged
    kEnded,          // OnAccept refused, or the listening socket failed
  };

  Outcome AcceptWaiting();
  gxbase::Descriptor AcceptOne();
  Outcome TakeConnection(gxbase::Descriptor connection);
  bool WaitAfter(Outcome outcome);
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
  gxbase::Descriptor listen_socket_ GUARDED_BY(mutex_);
};

#endif  // GX_SOCK_SOCK_ACCEPTOR_H
