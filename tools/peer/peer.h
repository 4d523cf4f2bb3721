// The far side of the tunnel: takes frames from one stream, opens the targets that they ask for, and carries
// bytes both ways until the stream ends.
//
// Memory is bounded: a target is not read while the outgoing stream is busy, and while some target owes too
// much the other side gets no permission to send more; one that knows of no permission, or does not keep to it,
// is not read then. Neither direction waits for the other.
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

enum class LogLevel { kError, kWarning, kInfo, kDebug };  // kError: why Run ends

// What Run returns; also the program's exit status.
inline constexpr int kPeerEnded = 0;     // the stream ended between two frames, or Stop
inline constexpr int kPeerLinkLost = 1;  // it broke, ended inside a frame, or nothing came for too long
inline constexpr int kPeerNotReady = 4;  // no other side was found on it

struct PeerOptions {
  AllowList allow = AllowList::Default();
  std::optional<Destination>
      target;  // opened for every connection, whatever it asks for and whatever `allow` says
  std::chrono::milliseconds connect_timeout = std::chrono::seconds(10);  // also for the ready line; 0: none
  std::chrono::milliseconds idle_timeout{0};                             // of a connection; 0: none
  std::chrono::milliseconds stall_timeout = std::chrono::seconds(60);    // of a target that all others wait for
  std::size_t max_connections = 1000;
  std::chrono::milliseconds keepalive =
      std::chrono::seconds(15);  // silence after which a ping is sent; 0: never
  int keepalive_count = 3;       // the link is lost after so many intervals of silence
  bool raw = false;              // frames from the first byte: no ready line, no pings, no goodbye
  bool handle_signals =
      false;  // SIGTERM, SIGINT and SIGHUP do what Stop does; for a process that is nothing else
  NameSources names;
  // One line without a line end; text of the other side in it is escaped. Called on the thread of Run; may be
  // empty.
  std::function<void(LogLevel, const std::string&)> log;
};

class PeerSession;

class Peer {
 public:
  // The descriptors are borrowed until the destructor has returned, and may be the same. They are made
  // non-blocking for that time. The process ignores SIGPIPE. Throws std::system_error when a descriptor is no
  // good.
  Peer(PeerOptions options, int read_fd, int write_fd);
  ~Peer();

  // Works on the calling thread until the stream ends. Once.
  int Run();

  // Any thread, at any time in the object's life: finishes what is under way, for at most 2 s, then ends Run.
  void Stop();

 private:
  const std::unique_ptr<PeerSession> session_;
};

}  // namespace gxtool

#endif  // GX_PEER_PEER_H
