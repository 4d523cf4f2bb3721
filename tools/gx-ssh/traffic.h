// Counts connections and bytes, from the frames that pass through.
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

// The client and the target of a connection, for messages. Empty: unknown.
struct Route {
  std::string client;
  std::string target;
};

// "Sent" means sent to the far side. Threads: any.
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
    std::uint64_t connections = 0;  // in total
    std::uint64_t open = 0;
    std::uint64_t sent = 0;
    std::uint64_t received = 0;
  };

  // The route of the connection that opens next under that id.
  void OnRoute(std::uint32_t id, Route route);
  // Counts a frame. The first Close from either side closes the connection.
  std::optional<Change> Count(const gxmod::FrameHeader& header, bool sent);

  Totals totals() const;
  std::vector<Connection> open() const;  // ordered by id
  // The link is down and all connections are closed: forgets the open ones and returns them.
  std::vector<Connection> CloseAll();

 private:
  mutable std::mutex mutex_;
  std::map<std::uint32_t, Connection> open_;
  std::map<std::uint32_t, Route> routes_;  // of connections whose Connect is not sent yet
  Totals totals_;
};

}  // namespace gxtool

#endif  // GX_SSH_TRAFFIC_H
