#include "sock/sock_acceptor.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/socket_address.h"
#include "reactor/descriptor_set.h"
#include "runtime/gxmod_runtime.h"
#include "sock/tcp_acceptor_task.h"

using gxbase::ScopedDescriptor;

namespace {

constexpr int kBacklog = 128;
constexpr unsigned long kPauseMs = 5000;
constexpr int kNoSocket = -1;
constexpr int kTaskAttempts = 2;
constexpr int kWinsockInvalid = 10022;
constexpr const char* kAcceptTag = "[CSockAcceptor::Accept] ";

// Ignore SIGPIPE: writing to a connection whose peer is gone must not end the host's process.
struct CInitSocket {
  CInitSocket() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
  }
};
const CInitSocket g_initSocket;

bool BindTo(int socket, const gxbase::SocketAddress& address) {
  if (address.ipaddr().family() == AF_INET6) {
    sockaddr_in6 ipv6;
    std::memset(&ipv6, 0, sizeof ipv6);
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_addr = address.ipaddr().ipv6_address();
    ipv6.sin6_port = htons(address.port());
    return bind(socket, reinterpret_cast<const sockaddr*>(&ipv6), sizeof ipv6) == 0;
  }
  sockaddr_in ipv4;
  address.ToSockAddr(&ipv4);
  return bind(socket, reinterpret_cast<const sockaddr*>(&ipv4), sizeof ipv4) == 0;
}

// An IPv6 socket's address is read through the same IPv4 struct: the port is right, the address prints as
// 0.0.0.0.
std::string BoundAddress(int socket) {
  sockaddr_in address;
  std::memset(&address, 0, sizeof address);
  socklen_t length = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &length);
  char ip[INET_ADDRSTRLEN];
  const char* text = inet_ntop(AF_INET, &address.sin_addr, ip, sizeof ip);
  return std::string(text != nullptr ? text : "<NULL>") + ":" + std::to_string(ntohs(address.sin_port));
}

// True when the listening socket itself failed. Other accept errors concern one connection or are temporary.
bool IsPortLost(int error) { return error == EBADF || error == EFAULT || error == EINVAL || error == ENOTSOCK; }

}  // namespace

CSockAcceptor::~CSockAcceptor() { ClosePort(); }

bool CSockAcceptor::StartListen(const char* host, int port, ITCPTaskTracker* tracker, bool reuse_port) {
  if (running_) return true;
  address_.clear();  // from an earlier start
  ScopedDescriptor listener(ListenSock(host, port, reuse_port));
  if (!listener) return false;
  if (tracker != nullptr && !IsSelectable(listener.get())) {
    GXModLog(kGXModLogError, "[CSockAcceptor] listening socket %d is beyond what select can watch",
             listener.get());
    return false;
  }
  tracker_ = tracker;
  port_ = port;
  address_ = BoundAddress(listener.get());
  {
    CStdLock lock(mutex_);
    listen_socket_ = std::move(listener);
    ++listening_;
    running_ = true;
  }
  if (WaitAfter(AcceptWaiting())) return true;
  address_.clear();
  return false;
}

bool CSockAcceptor::StartListen(const char* host_port, ITCPTaskTracker* tracker) {
  std::string host;
  int port = 0;
  if (host_port == nullptr || !gxbase::SplitListenText(host_port, host, port)) return false;
  return StartListen(host.c_str(), port, tracker, false);
}

bool CSockAcceptor::Stop() {
  if (ClosePort()) WakeTracker();
  return true;
}

bool CSockAcceptor::ClosePort() {
  CStdLock lock(mutex_);
  if (!running_) return false;
  running_ = false;
  stopped_.notify_all();
  shutdown(listen_socket_.get(), SHUT_RDWR);  // ends a select that waits for it
  listen_socket_.Close();
  return true;
}

// A tracker with many tasks may not hear of the closed socket, and the task that waits for it keeps the
// acceptor. A task that is due at once makes the tracker look at all.
void CSockAcceptor::WakeTracker() {
  ITCPTaskTracker* const tracker = tracker_;
  if (tracker == nullptr) return;
  try {
    tracker->AddTask(CTCPTask(new CTCPAcceptorTask(kNoSocket, nullptr, 0)));
  } catch (const std::bad_alloc&) {
    GXModLog(kGXModLogTrace, "[CSockAcceptor] no memory to wake the tracker after a stop");
  }
}

bool CSockAcceptor::OnAccept(CRefObj<CSockStream> stream) {
  if (IBaseStream::IBaseHandler* handler = stream->Handler()) {
    handler->Handle(stream.get(), IBaseStream::kConnected, nullptr, 0);
  }
  return true;
}

bool CSockAcceptor::CreateStream(CRefObj<CSockStream>& out, int socket, ITCPTaskTracker* tracker) {
  ScopedDescriptor connection(socket);  // owns the socket until the stream does
  if (!CreateStream(out, IBaseStream::StreamType{0})) {
    connection.Take();  // stays open: the refusing subclass may have taken it
    return false;
  }
  out->SetSocket(connection.Take(), true);
  out->SetTracker(tracker);
  return static_cast<bool>(out);
}

bool CSockAcceptor::CreateStream(CRefObj<CSockStream>& out, IBaseStream::StreamType type) {
  out = CRefObj<CSockStream>(new CSockStream(type));
  return true;
}

bool CSockAcceptor::Accept() {
  const Outcome outcome = AcceptWaiting();
  if (outcome != kFailed) return WaitAfter(outcome);
  WaitInTracker(kForTime);  // an error of one connection must not close the port
  return false;
}

// Returns false when the acceptor has stopped: it closes a port that it cannot serve, so that clients are
// refused instead of hanging.
bool CSockAcceptor::WaitAfter(Outcome outcome) {
  if (outcome == kNobodyWaits) return WaitInTracker(kForConnections);
  if (outcome == kNoDescriptors) return Pause();
  Stop();
  return false;
}

CSockAcceptor::Outcome CSockAcceptor::AcceptWaiting() {
  for (;;) {
    ScopedDescriptor connection = AcceptOne();
    if (connection) {
      const Outcome outcome = TakeConnection(std::move(connection));
      if (outcome != kTaken) return outcome;
      continue;
    }
    const int error = errno;
    if (!running_) return kNobodyWaits;
    switch (error) {
      case EINTR:
        continue;
      case EAGAIN:
        return kNobodyWaits;
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        std::printf("accept failed with WSAEMFILE\n");
        return kNoDescriptors;
      default:
        std::printf("accept failed with %d\n", error);
        LogFailure("", "accept", error, 438);
        // Winsock's code for a socket that does not listen; no POSIX system returns it. Hosts on that layer
        // rely on the process ending.
        if (error == kWinsockInvalid) std::exit(0);
        return IsPortLost(error) ? kEnded : kFailed;
    }
  }
}

// Accepts the next connection; on an empty result errno tells why.
ScopedDescriptor CSockAcceptor::AcceptOne() {
  CStdLock lock(mutex_);
  if (!running_) return {};
  ScopedDescriptor connection = gxbase::AcceptConnection(listen_socket_.get());
  // In a host without standard input accept may return 0, which a stream takes for "no socket".
  return connection.get() == 0 ? gxbase::Duplicate(0) : std::move(connection);
}

CSockAcceptor::Outcome CSockAcceptor::TakeConnection(ScopedDescriptor connection) {
  const int socket = connection.get();
  ITCPTaskTracker* tracker = tracker_;
  if (tracker != nullptr && !IsSelectable(socket)) {
    GXModLog(kGXModLogError,
             "[CSockAcceptor::Accept] connection refused: socket %d is beyond what select can watch", socket);
    return kTaken;
  }
  if (!gxbase::SetNonBlocking(socket)) {
    LogFailure(kAcceptTag, "ioctlsocket", errno, 449);
    return kFailed;
  }
  const int on = 1;
  if (setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0) {
    std::printf("[CSockAcceptor::Accept] setsockopt nodelay failed with %d, line:%d", errno, 458);
  }
  CRefObj<CSockStream> stream;
  try {
    if (!CreateStream(stream, connection.Take(), tracker)) {
      LogFailure(kAcceptTag, "CreateStream", errno, 465);
      return kFailed;
    }
    return OnAccept(stream) ? kTaken : kEnded;
  } catch (...) {
    GXModLog(kGXModLogError, "[CSockAcceptor::Accept] connection refused: an exception occurred");
    if (stream) stream->Disconnect(kStreamOtherError);
    return kTaken;
  }
}

// Returns false when there is no memory for a task; the port is then closed.
bool CSockAcceptor::WaitInTracker(Until until) {
  ITCPTaskTracker* tracker = tracker_;
  if (tracker == nullptr) return true;
  int listen_socket;
  {
    CStdLock lock(mutex_);
    if (!running_) return true;
    listen_socket = listen_socket_.get();
  }
  for (int attempt = 1; attempt <= kTaskAttempts; ++attempt) {
    try {
      tracker->AddTask(CTCPTask(until == kForConnections ? new CTCPAcceptorTask(listen_socket, this, kNoTimeout)
                                                         : new CTCPAcceptorTask(kNoSocket, this, kPauseMs)));
      return true;
    } catch (const std::bad_alloc&) {  // another thread may just have freed memory
    }
  }
  LogFailure(kAcceptTag, "AddTask", ENOMEM, __LINE__);
  Stop();
  return false;
}

// All descriptors of the process are in use, so an immediate retry would only spin. With a reactor the pause is
// a task that waits for its time limit, so that other connections are served meanwhile.
bool CSockAcceptor::Pause() {
  if (tracker_ != nullptr) return WaitInTracker(kForTime);
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPauseMs);
  std::unique_lock<std::mutex> lock(mutex_.native());
  stopped_.wait_until(lock, until, [this] { return !running_.load(); });
  return true;
}

bool CSockAcceptor::WaitTimeout(unsigned int ms) {
  timeval now;
  gettimeofday(&now, nullptr);
  timespec deadline;
  deadline.tv_sec = now.tv_sec + static_cast<decltype(now.tv_sec)>(ms / 1000);
  // Whole seconds are not carried, and then the system rejects the wait: callers of this interface treat that
  // as a timeout.
  deadline.tv_nsec = static_cast<long>(ms % 1000) * 1'000'000 + static_cast<long>(now.tv_usec) * 1000;
  std::unique_lock<std::mutex> lock(mutex_.native());
  return pthread_cond_timedwait(stopped_.native_handle(), lock.mutex()->native_handle(), &deadline) != 0;
}

void CSockAcceptor::LogFailure(const char* tag, const char* what, int error, int line) {
  int listen_socket;
  {
    CStdLock lock(mutex_);
    listen_socket = listen_socket_.get();
  }
  GXModLog(kGXModLogError, "%sm_sListen:%d,port:%d %s failed with WSAGetLastError(): %d,at line %d", tag,
           listen_socket, port_, what, error, line);
}

int CSockAcceptor::ListenSock(const char* host, int port, bool reuse_port) {
  const gxbase::SocketAddress address(host != nullptr ? host : "0.0.0.0", port);
  const int family = address.ipaddr().family();
  ScopedDescriptor listener = gxbase::OpenSocket(family, SOCK_STREAM, IPPROTO_TCP);
  if (!listener) return -1;
  const std::int64_t on = 1;  // 8 bytes; the system reads the first 4
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (reuse_port) setsockopt(listener.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  const int v6_only = 1;
  if (family == AF_INET6 &&
      setsockopt(listener.get(), IPPROTO_IPV6, IPV6_V6ONLY, &v6_only, sizeof v6_only) != 0) {
    std::perror("setsockopt");
    listener.Take();  // stays open, as hosts are told in docs/limits.md
    return -1;
  }
  if (!BindTo(listener.get(), address) || listen(listener.get(), kBacklog) != 0) return -1;
  return listener.Take();
}
