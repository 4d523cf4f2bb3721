// The target of the tunnel: a port of 127.0.0.1 that does what the first bytes of a connection request.
//
// A pool of threads waits for connections; each thread serves one at a time, from start to end. So the cost per
// connection does not grow with their number, as in an event loop, and no thread has to be started.
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
  kEcho,    // returns every byte
  kSink,    // receives the pattern to its end, then answers with a Receipt
  kSource,  // sends the pattern for a time, then its end
};

inline constexpr std::size_t kMostParts = 8;

// The first bytes of a connection.
struct Request {
  Service service;
  std::uint64_t key = 0;      // of the pattern
  std::uint64_t time_ms = 0;  // how long the pattern is sent
  // The bytes between each two of these times are counted separately. Zeros follow the last one.
  std::array<std::uint64_t, kMostParts + 1> edges_ms{};
};

struct Receipt {
  std::uint64_t bytes = 0;  // in total
  std::array<std::uint64_t, kMostParts> in_part{};
};

class Target {
 public:
  // Serves up to `connections` at once; more of them wait.
  Target(std::uint16_t port, std::size_t connections);
  // Waits until the other ends of all connections are closed.
  ~Target();

  const sockaddr_in& address() const { return listener_.address(); }
  // The reason of the first failed connection; empty if none has failed.
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
