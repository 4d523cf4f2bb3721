// A local address of the program's own, which outlives the links that it leads to.
#ifndef GX_SSH_LISTENER_H
#define GX_SSH_LISTENER_H

#include <asio/basic_socket_acceptor.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "gx-ssh/lifetime.h"
#include "gx-ssh/options.h"
#include "gx-ssh/relay.h"

namespace gxtool {

// Clients that come while there is no link wait until there is one.
// Threads: the one that runs `io`.
class Listener {
 public:
  // Throws Failure (kExitListen).
  Listener(asio::io_context& io, const ListenAddress& address);
  // Removes the Unix socket.
  ~Listener();

  // Where it listens; the port is the real one.
  const ListenAddress& address() const { return address_; }

  // From now on clients are connected to that port of the module.
  void Open(const std::string& address, std::uint16_t port);
  // Ends the connections of a link that is no more, and lets new clients wait.
  void Close();

 private:
  using Protocol = asio::generic::stream_protocol;
  using Relays = std::list<std::unique_ptr<Relay>>;

  Protocol::endpoint Endpoint() const;
  void Accept();
  void Serve(int client);

  asio::io_context& io_;
  ListenAddress address_;
  asio::basic_socket_acceptor<Protocol> acceptor_;
  asio::steady_timer pause_;
  bool open_ = false;
  std::string module_address_;
  std::uint16_t module_port_ = 0;
  Relays relays_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_LISTENER_H
