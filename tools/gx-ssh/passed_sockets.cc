#include "gx-ssh/passed_sockets.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <asio/ip/tcp.hpp>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>
#ifdef GX_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

#include "gx-ssh/failure.h"
#include "gx-ssh/report.h"

namespace gxtool {
namespace {

#ifdef GX_SYSTEMD
constexpr int kFirst = SD_LISTEN_FDS_START;

// Also removes the variables, so that child programs do not see them.
int CountOfSockets() { return std::max(sd_listen_fds(1), 0); }

bool TakesConnections(int fd) { return sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 1) > 0; }
#else
constexpr int kFirst = 3;

int CountOfSockets() { return 0; }

bool TakesConnections(int) { return false; }
#endif

// The addresses that a bound socket for `at` may report, the best one first: canonical numeric addresses. A
// computer without IPv6 listens at 0.0.0.0 for all addresses.
std::vector<ListenAddress> BoundAs(const ListenAddress& at) {
  if (!at.unix_path.empty()) return {at};
  if (at.address == kAnyAddress) return {{{}, "::", at.port}, {{}, "0.0.0.0", at.port}};
  return {{{}, asio::ip::make_address(at.address).to_string(), at.port}};
}

}  // namespace

ListenAddress BoundAddress(int socket) {
  sockaddr_storage name{};
  socklen_t size = sizeof name;
  if (getsockname(socket, reinterpret_cast<sockaddr*>(&name), &size) != 0) return {};
  if (name.ss_family == AF_UNIX) {
    const auto* const path = reinterpret_cast<const sockaddr_un*>(&name)->sun_path;
    return {std::string(path, strnlen(path, size - offsetof(sockaddr_un, sun_path))), {}, 0};
  }
  asio::ip::tcp::endpoint endpoint;
  std::memcpy(endpoint.data(), &name, std::min<std::size_t>(size, endpoint.capacity()));
  return {{}, endpoint.address().to_string(), endpoint.port()};
}

PassedSockets::PassedSockets() {
  const int count = CountOfSockets();
  for (int fd = kFirst; fd < kFirst + count; ++fd) {
    if (!TakesConnections(fd)) {
      throw Failure(kExitListen, "descriptor " + std::to_string(fd) +
                                     " of the service manager takes no connections; it wants ListenStream= "
                                     "and Accept=no");
    }
    sockets_.push_back({BoundAddress(fd), Descriptor(fd)});
  }
}

Descriptor PassedSockets::Take(const ListenAddress& at) {
  for (const ListenAddress& wanted : BoundAs(at)) {
    const auto found = std::find_if(sockets_.begin(), sockets_.end(),
                                    [&wanted](const Socket& socket) { return socket.at == wanted; });
    if (found == sockets_.end()) continue;
    Descriptor taken = std::move(found->descriptor);
    sockets_.erase(found);
    return taken;
  }
  return {};
}

void PassedSockets::ExpectAllTaken() const {
  if (sockets_.empty()) return;
  throw Failure(kExitListen, "the service manager listens at " + AddressText(sockets_.front().at) +
                                 ", and neither --listen nor -L names that");
}

}  // namespace gxtool
