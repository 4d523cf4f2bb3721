#include "gx-ssh/listener.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <asio/ip/tcp.hpp>
#include <asio/ip/v6_only.hpp>
#include <asio/local/stream_protocol.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>
#include <utility>

#include "common/high_descriptors.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/passed_sockets.h"
#include "gx-ssh/report.h"

namespace gxtool {
namespace {

constexpr mode_t kOwnerOnly = 0177;

std::string Text(const ListenAddress& address) {
  if (!address.unix_path.empty()) return "unix:" + address.unix_path;
  return address.address + " port " + std::to_string(address.port);
}

// Removes a socket without a listener: a killed process left it behind.
void RemoveIfStale(const std::string& path, const asio::generic::stream_protocol::endpoint& endpoint) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) return;
  const Descriptor probe(socket(AF_UNIX, SOCK_STREAM, 0));
  const auto size = static_cast<socklen_t>(endpoint.size());
  if (connect(probe.get(), endpoint.data(), size) != 0 && errno == ECONNREFUSED) unlink(path.c_str());
}

}  // namespace

Listener::Listener(asio::io_context& io, Forward forward, bool user_only, Descriptor passed)
    : io_(io), forward_(std::move(forward)), acceptor_(io), pause_(io) {
  try {
    if (user_only && !IsUnix()) users_.emplace();  // a Unix socket is protected by its mode
    if (passed) {
      acceptor_.assign(Endpoint().protocol(), passed.get());
      static_cast<void>(passed.Release());
    } else {
      Bind();
      acceptor_.listen();
    }
    acceptor_.non_blocking(true);  // a client may leave before it is accepted
    forward_.at = BoundAddress(acceptor_.native_handle());
  } catch (const std::system_error& error) {
    throw Failure(kExitListen, "cannot listen at " + Text(forward_.at) + ": " + error.code().message());
  }
}

bool Listener::IsOpenToOthers() const {
  return !IsUnix() && !asio::ip::make_address(forward_.at.address).is_loopback();
}

void Listener::Bind() {
  const Protocol::endpoint endpoint = Endpoint();
  acceptor_.open(endpoint.protocol());
  fcntl(acceptor_.native_handle(), F_SETFD, FD_CLOEXEC);
  if (IsUnix()) RemoveIfStale(forward_.at.unix_path, endpoint);
  if (!IsUnix()) acceptor_.set_option(asio::socket_base::reuse_address(true));
  if (forward_.at.address == kAnyAddress && endpoint.protocol().family() == AF_INET6) {
    acceptor_.set_option(asio::ip::v6_only(false));
  }
  // bind creates the socket with this mode, so that other users can never connect.
  const mode_t before = umask(kOwnerOnly);
  asio::error_code error;
  acceptor_.bind(endpoint, error);
  umask(before);
  if (error) throw std::system_error(error);
  if (IsUnix()) {
    struct stat bound_path {};
    if (lstat(forward_.at.unix_path.c_str(), &bound_path) == 0)
      own_path_.emplace(forward_.at.unix_path, bound_path);
  }
}

void Listener::Open(const std::string& address, std::uint16_t port, std::shared_ptr<Entrance> entrance) {
  module_address_ = address;
  module_port_ = port;
  entrance_ = std::move(entrance);
  open_ = true;
  Accept();
}

void Listener::Close() {
  open_ = false;
  acceptor_.cancel();
  pause_.cancel();
  relays_.clear();
  entrance_.reset();
}

Listener::Protocol::endpoint Listener::Endpoint() const {
  const auto& [unix_path, address, port] = forward_.at;
  if (IsUnix()) return asio::local::stream_protocol::endpoint(unix_path);
  if (address != kAnyAddress) return asio::ip::tcp::endpoint(asio::ip::make_address(address), port);
  const Descriptor probe(socket(AF_INET6, SOCK_STREAM, 0));
  return asio::ip::tcp::endpoint(probe ? asio::ip::tcp::v6() : asio::ip::tcp::v4(), port);
}

void Listener::Accept() {
  if (!open_ || accepting_ || !entrance_->HasRoom()) return;
  accepting_ = true;
  acceptor_.async_wait(Acceptor::wait_read, lifetime_.Guard([this](asio::error_code error) {
    accepting_ = false;
    // Other listeners may have used the room up.
    if (!open_ || !entrance_->HasRoom()) return;
    Protocol::socket client(io_);
    if (!error) acceptor_.accept(client, error);
    if (!error) Serve(Descriptor(MoveUp(client.release())));
    if (!error || error == asio::error::would_block || error == asio::error::operation_aborted) return Accept();
    // Probably out of descriptors: pause while the client waits in the backlog.
    spdlog::warn("cannot take a connection: {}", error.message());
    pause_.expires_after(std::chrono::seconds(1));
    pause_.async_wait(lifetime_.Guard([this](asio::error_code stopped) {
      if (!stopped) Accept();
    }));
  }));
}

// Empty when the client has already disconnected. Clients of a Unix socket have no name; the listener's is
// used.
std::string Listener::ClientText(int client) const {
  if (IsUnix()) return AddressText(forward_.at);
  asio::ip::tcp::endpoint name;
  auto size = static_cast<socklen_t>(name.capacity());
  if (getpeername(client, name.data(), &size) != 0) return {};
  return AddressText({"", name.address().to_string(), name.port()});
}

void Listener::Serve(Descriptor client) {
  fcntl(client.get(), F_SETFD, FD_CLOEXEC);
  if (users_ && users_->OwnerOfPeer(client.get()) != geteuid()) {
    return spdlog::debug("refused a client of another user");
  }
  const int on = 1;
  if (!IsUnix()) setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const std::string from = ClientText(client.get());
  try {
    Descriptor module = ConnectTo(module_address_, module_port_);
    const std::uint64_t number = ++served_;
    const auto ended = lifetime_.Guard([this, number](const std::string&) { relays_.erase(number); });
    relays_.emplace(number, std::make_unique<Relay>(io_, std::move(client), Descriptor(), std::move(module),
                                                    entrance_->Expect({from, forward_.target}),
                                                    Relay::Events{{}, {}, ended}));
  } catch (const std::system_error& error) {
    spdlog::warn("cannot connect a client to the module: {}", error.code().message());
  }
}

}  // namespace gxtool
