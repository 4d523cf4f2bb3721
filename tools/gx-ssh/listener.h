// A local address at which the program itself listens, from one link to the next.
#ifndef GX_SSH_LISTENER_H
#define GX_SSH_LISTENER_H

#include <asio/basic_socket_acceptor.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "common/descriptor.h"
#include "gx-ssh/forward.h"
#include "gx-ssh/lifetime.h"
#include "gx-ssh/own_path.h"
#include "gx-ssh/relay.h"
#include "gx-ssh/socket_table.h"

namespace gxtool {

// Clients that arrive while there is no link, or no room at the entrance, wait in the backlog.
// Threads: the one that runs `io`.
class Listener {
 public:
  // `user_only`: rejects clients of other users of this computer and of other computers. `passed`: a socket
  // that already listens at this address and keeps its mode and path, or empty. The destructor removes a Unix
  // socket that this object created. Throws Failure (kExitListen).
  Listener(asio::io_context& io, Forward forward, bool user_only, Descriptor passed);
  // As requested, with the real address and port.
  const Forward& forward() const { return forward_; }
  // True when other computers can connect.
  bool IsOpenToOthers() const;

  // Connects clients to that port of the module, through its entrance, from now on.
  void Open(const std::string& address, std::uint16_t port, std::shared_ptr<Entrance> entrance);
  // Call after OnRoom of the entrance.
  void Continue() { Accept(); }
  // Ends the connections of the link that went down; new clients wait.
  void Close();

 private:
  using Protocol = asio::generic::stream_protocol;
  using Acceptor = asio::basic_socket_acceptor<Protocol>;
  using Relays = std::unordered_map<std::uint64_t, std::unique_ptr<Relay>>;

  bool IsUnix() const { return !forward_.at.unix_path.empty(); }
  Protocol::endpoint Endpoint() const;
  void Bind();
  void Accept();
  void Serve(Descriptor client);
  std::string ClientText(int client) const;

  asio::io_context& io_;
  Forward forward_;
  std::optional<SocketTable> users_;  // to admit only this user's clients
  Acceptor acceptor_;
  std::optional<OwnPath> own_path_;  // of the Unix socket
  asio::steady_timer pause_;
  bool open_ = false;
  bool accepting_ = false;
  std::string module_address_;
  std::uint16_t module_port_ = 0;
  std::shared_ptr<Entrance> entrance_;
  std::uint64_t served_ = 0;  // number of the last client
  Relays relays_;             // by the clients' numbers
  Lifetime lifetime_;
};

}  // namespace gxtool

#endif  // GX_SSH_LISTENER_H
