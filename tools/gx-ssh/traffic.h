// Counts connections and bytes, from the frames that pass.
#ifndef GX_SSH_TRAFFIC_H
#define GX_SSH_TRAFFIC_H

#include <gxmod/frames.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace gxtool {

// From where to where a connection goes, for people. Empty: not known.
struct Route {
  std::string client;
  std::string target;
};

// "Sent" goes to the far side. Threads: any.
class Traffic {
 public:
  using Clock = std::chrono::steady_clock;

  struct Connection {
    std::uint32_t id = 0;
    Clock::time_point since;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
    Route route = {};

    double Seconds() const { return std::chrono::duration<double>(Clock::now() - since).count(); }
  };
  struct Change {
    bool opened = false;  // otherwise closed
    Connection connection;
  };
  struct Totals {
    std::uint64_t connections = 0;  // ever
    std::uint64_t open = 0;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
  };

  // Of the connection that opens next under that id.
  void OnRoute(std::uint32_t id, Route route);
  // Takes a frame into account. Whichever side closes first closes the connection.
  std::optional<Change> Count(const gxmod::FrameHeader& header, bool sent);

  Totals totals() const;
  std::vector<Connection> open() const;  // by id
  // The link is gone and with it every connection: forgets those that are open, and returns them.
  std::vector<Connection> CloseAll();

 private:
  mutable std::mutex mutex_;
  std::map<std::uint32_t, Connection> open_;
  std::map<std::uint32_t, Route> routes_;  // of those whose Connect has still to go out
  Totals totals_;
};

}  // namespace gxtool

#endif  // GX_SSH_TRAFFIC_H
