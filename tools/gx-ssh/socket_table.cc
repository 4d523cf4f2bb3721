#include "gx-ssh/socket_table.h"

#include <netinet/in.h>
#include <sys/socket.h>
#ifdef __linux__
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#endif

#include <cerrno>
#include <cstring>
#include <system_error>

namespace gxtool {

#ifdef __linux__

namespace {

struct Request {
  nlmsghdr header{};
  inet_diag_req_v2 body{};
};

// Stores the address in `words` and returns the port, both in network byte order.
in_port_t Split(const sockaddr_storage& address, __be32* words) {
  if (address.ss_family == AF_INET) {
    sockaddr_in v4{};
    std::memcpy(&v4, &address, sizeof v4);
    std::memcpy(words, &v4.sin_addr, sizeof v4.sin_addr);
    return v4.sin_port;
  }
  sockaddr_in6 v6{};
  std::memcpy(&v6, &address, sizeof v6);
  std::memcpy(words, &v6.sin6_addr, sizeof v6.sin6_addr);
  return v6.sin6_port;
}

}  // namespace

SocketTable::SocketTable() : kernel_(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG)) {
  if (!kernel_) throw std::system_error(errno, std::generic_category(), "socket table");
}

std::optional<uid_t> SocketTable::OwnerOfPeer(int socket) const {
  sockaddr_storage peer{};
  sockaddr_storage own{};
  socklen_t peer_size = sizeof peer;
  socklen_t own_size = sizeof own;
  if (getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peer_size) != 0 ||
      getsockname(socket, reinterpret_cast<sockaddr*>(&own), &own_size) != 0) {
    return std::nullopt;
  }
  Request request;
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.body.sdiag_family = static_cast<__u8>(peer.ss_family);
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_states = ~0U;
  request.body.id.idiag_sport = Split(peer, request.body.id.idiag_src);
  request.body.id.idiag_dport = Split(own, request.body.id.idiag_dst);
  request.body.id.idiag_cookie[0] = request.body.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  struct {
    nlmsghdr header;
    inet_diag_msg body;
    char more[1024];
  } answer{};
  // The kernel has answered when send returns.
  if (send(kernel_.get(), &request, sizeof request, 0) < 0) return std::nullopt;
  const ssize_t got = recv(kernel_.get(), &answer, sizeof answer, MSG_DONTWAIT);
  const inet_diag_msg& found = answer.body;
  if (got < static_cast<ssize_t>(sizeof answer.header + sizeof found) ||
      answer.header.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
    return std::nullopt;
  }
  // For an unknown connection the kernel may return a listening socket. A socket without an inode was closed by
  // its program; some kernels report it as root's.
  if (found.id.idiag_dport != request.body.id.idiag_dport || found.idiag_inode == 0) return std::nullopt;
  return found.idiag_uid;
}

#else

SocketTable::SocketTable() { throw std::system_error(ENOSYS, std::generic_category(), "socket table"); }

std::optional<uid_t> SocketTable::OwnerOfPeer(int /*socket*/) const { return std::nullopt; }

#endif

}  // namespace gxtool
