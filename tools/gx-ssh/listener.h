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
#include <optional>
#include <string>

#include "common/descriptor.h"
#include "gx-ssh/forward.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/own_path.h"
#include "gx-ssh/relay.h"
#include "gx-ssh/socket_table.h"

namespace gxtool {

// Clients that come while there is no link, or no room at the entrance, wait until there is.
// Threads: the one that runs `io`.
class Listener {
 public:
  // `user_only`: clients of other users of this computer, and of other computers, are turned away. Throws
  // Failure (kExitListen). A Unix socket is removed at the end. `passed`: one that listens there already, with
  // a mode and a path of its own, which stay as they are; or none.
  Listener(asio::io_context& io, Forward forward, bool user_only, Descriptor passed);
  // What was asked for, with the real address and port.
  const Forward& forward() const { return forward_; }
  // Other computers can connect.
  bool IsOpenToOthers() const;

  // From now on clients are connected to that port of the module, through its entrance.
  void Open(const std::string& address, std::uint16_t port, std::shared_ptr<Entrance> entrance);
  // After OnRoom of the entrance.
  void Continue() { Accept(); }
  // Ends the connections of a link that is no more, and lets new clients wait.
  void Close();

 private:
  using Protocol = asio::generic::stream_protocol;
  using Relays = std::list<std::unique_ptr<Relay>>;

  bool IsUnix() const { return !forward_.at.unix_path.empty(); }
  Protocol::endpoint Endpoint() const;
  void Bind();
  void Accept();
  void Serve(Descriptor client);
  std::string ClientText(int client) const;

  asio::io_context& io_;
  Forward forward_;
  std::optional<SocketTable> users_;  // only one of them is let in
  asio::basic_socket_acceptor<Protocol> acceptor_;
  std::optional<OwnPath> own_path_;  // the Unix socket's
  asio::steady_timer pause_;
  bool open_ = false;
  bool accepting_ = false;
  std::string module_address_;
  std::uint16_t module_port_ = 0;
  std::shared_ptr<Entrance> entrance_;
  Relays relays_;
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_LISTENER_H
