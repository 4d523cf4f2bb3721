// What stands behind the tunnel: a port of 127.0.0.1 that does what the first bytes of a connection ask for.
//
// Its threads all wait for connections, and each serves one at a time, start to end: no event loop whose passes
// would grow with the number of connections, no thread that has to be started.
#ifndef GX_BENCH_TUNNEL_TARGET_H
#define GX_BENCH_TUNNEL_TARGET_H

#include <array>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "socket.h"

namespace gxbench {

enum class Service : std::uint64_t {
  kEcho,    // every byte comes back
  kSink,    // takes the pattern to its end, then answers with a Receipt
  kSource,  // sends the pattern for a time, then its end
};

inline constexpr std::size_t kMostParts = 8;

// The first bytes of a connection.
struct Request {
  Service service;
  std::uint64_t key = 0;      // of the pattern
  std::uint64_t time_ms = 0;  // for which the pattern is sent
  // What comes from one of these times to the next is counted by itself. Behind the last one are zeros.
  std::array<std::uint64_t, kMostParts + 1> edges_ms{};
};

struct Receipt {
  std::uint64_t bytes = 0;  // all
  std::array<std::uint64_t, kMostParts> in_part{};
};

class Target {
 public:
  // Serves up to `connections` at once; more of them wait.
  Target(std::uint16_t port, std::size_t connections);
  // Expects that the other ends of all connections are closed, or about to be.
  ~Target();

  const sockaddr_in& address() const { return listener_.address(); }
  // What the first connection that failed here failed of; empty: none did.
  std::string failure() const;

 private:
  void Work();
  void Serve(Socket& connection);

  Listener listener_;
  mutable std::mutex mutex_;
  std::string failure_;  // guarded by mutex_
  std::vector<std::thread> threads_;
};

// The two ends of a bulk transfer.
void SendPattern(Socket& connection, const Request& request);
Receipt ReceivePattern(Socket& connection, const Request& request);

}  // namespace gxbench

#endif  // GX_BENCH_TUNNEL_TARGET_H
