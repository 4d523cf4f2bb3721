// Numeric socket addresses: parsing, printing, conversion. No name is looked up here.
#ifndef GX_BASE_SOCKET_ADDRESS_H
#define GX_BASE_SOCKET_ADDRESS_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <string>

struct addrinfo;

namespace gxbase {

// An IPv4 or IPv6 address, or the unspecified one (family 0, all zero).
class IPAddress {
 public:
  IPAddress() = default;
  explicit IPAddress(const in_addr& ipv4);
  explicit IPAddress(const in6_addr& ipv6);

  int family() const { return family_; }
  in_addr ipv4_address() const;  // network order
  in6_addr ipv6_address() const;
  // Empty for the unspecified address.
  std::string ToString() const;

 private:
  int family_ = AF_UNSPEC;
  in6_addr bytes_{};  // an IPv4 address takes the first four
};

// True when `text` is an IPv4 or IPv6 literal; otherwise `*out` becomes unspecified.
bool IPFromString(const std::string& text, IPAddress* out);
// The address of one entry of a resolver's list. False, and `*out` is unchanged, for another family.
bool IPFromAddrInfo(const addrinfo* info, IPAddress* out);
// True for 0.0.0.0 and ::.
bool IPIsAny(const IPAddress& ip);

class SocketAddress {
 public:
  SocketAddress() = default;
  // A `host` that is no literal leaves the IP unspecified.
  SocketAddress(const std::string& host, int port);

  const std::string& hostname() const { return hostname_; }
  const IPAddress& ipaddr() const { return ip_; }
  std::uint16_t port() const { return port_; }  // host order
  int scope_id() const { return scope_id_; }
  bool IsLiteral() const { return literal_; }

  // The host name, or the IP, in brackets when it is IPv6.
  std::string HostAsURIString() const;
  // HostAsURIString, a colon, the port: "127.0.0.1:22", "[::1]:22".
  std::string ToString() const;
  // All zero unless the IP is IPv4.
  void ToSockAddr(sockaddr_in* out) const;

 private:
  friend bool SocketAddressFromSockAddrStorage(const sockaddr_storage& in, SocketAddress* out);

  std::string hostname_;
  IPAddress ip_;
  std::uint16_t port_ = 0;
  int scope_id_ = 0;
  bool literal_ = false;
};

// False for a family other than IPv4 and IPv6; `*out` is then unchanged.
bool SocketAddressFromSockAddrStorage(const sockaddr_storage& in, SocketAddress* out);

// Splits at the first colon; the port may be empty. False: there is no colon, and nothing is changed. An IPv6
// literal comes apart wrongly.
bool SplitAtColon(const std::string& text, std::string& host, std::string& port);
// Splits a text to listen on: "host:port", "[ipv6]:port" or "[ipv6]" (port 0). The port is what atoi reads, cut
// to 16 bits. False: the text is none of these, and nothing is changed.
bool SplitListenText(const std::string& text, std::string& host, int& port);

// The platform's functions of the same names.
int inet_pton(int family, const char* text, void* out);
const char* inet_ntop(int family, const void* in, char* buffer, unsigned int length);

}  // namespace gxbase

#endif  // GX_BASE_SOCKET_ADDRESS_H
