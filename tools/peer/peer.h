// The far side of the tunnel: reads frames from one stream, connects to the requested targets, and carries
// bytes both ways until the stream ends.
//
// Memory is bounded. Targets are not read while the outgoing stream is busy. While a target has too many bytes
// queued, the other side gets no permission to send more; if it does not know or ignores permissions, its
// stream is not read. Neither direction waits for the other.
#ifndef GX_PEER_PEER_H
#define GX_PEER_PEER_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/destination.h"
#include "peer/allow_list.h"
#include "peer/lookup.h"

namespace gxtool {

enum class LogLevel { kError, kWarning, kInfo, kDebug };  // kError: the reason why Run ends

// What Run returns; also the program's exit status.
inline constexpr int kPeerEnded = 0;     // the stream ended between two frames, or Stop was called
inline constexpr int kPeerLinkLost = 1;  // the stream broke, ended inside a frame, or was silent for too long
inline constexpr int kPeerNotReady = 4;  // no other side was found on the stream

// What a session may take at most for pending work when it ends.
struct EndTimes {
  std::chrono::milliseconds stop{1700};        // after Stop
  std::chrono::milliseconds input_end{1000};   // after the end of the input
  std::chrono::milliseconds last_frames{200};  // after either
};

struct PeerOptions {
  AllowList allow = AllowList::Default();
  std::optional<Destination>
      target;  // if set, opened for every connection, without looking at its request or at `allow`
  std::chrono::milliseconds connect_timeout = std::chrono::seconds(10);  // also for the ready line; 0: no limit
  std::chrono::milliseconds idle_timeout{0};                             // of a connection; 0: no limit
  std::chrono::milliseconds stall_timeout = std::chrono::seconds(60);    // of a target that blocks all others
  EndTimes end_times;
  std::size_t max_connections = 1000;
  std::chrono::milliseconds keepalive =
      std::chrono::seconds(15);  // a ping is sent after this silence; 0: never
  int keepalive_count = 3;       // this many silent intervals mean that the link is lost
  bool raw = false;              // frames from the first byte: no ready line, pings or goodbye
  bool handle_signals = false;   // SIGTERM, SIGINT and SIGHUP call Stop; for a process that does nothing else
  NameSources names;
  // Receives one line without a line end; the other side's text in it is escaped. Called on Run's thread; may
  // be empty.
  std::function<void(LogLevel, const std::string&)> log;
};

class PeerSession;

class Peer {
 public:
  // The descriptors are borrowed until the destructor has returned, and may be the same. They are non-blocking
  // during that time. The process ignores SIGPIPE. Throws std::system_error for an unusable descriptor.
  Peer(PeerOptions options, int read_fd, int write_fd);
  ~Peer();

  // Works on the calling thread until the stream ends. Call it once.
  int Run();

  // Thread: any, while the object exists. Finishes current work within end_times, then ends Run.
  void Stop();

 private:
  const std::unique_ptr<PeerSession> session_;
};

}  // namespace gxtool

#endif  // GX_PEER_PEER_H
