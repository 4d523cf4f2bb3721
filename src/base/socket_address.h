// Numeric socket addresses: parsing, printing, conversion. No names are looked up here.
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
  in6_addr bytes_{};  // an IPv4 address uses the first four bytes
};

// True when `text` is an IPv4 or IPv6 literal; otherwise `*out` is set to the unspecified address.
bool IPFromString(const std::string& text, IPAddress* out);
// Reads the address of one entry of a resolver's list. Returns false, with `*out` unchanged, for other
// families.
bool IPFromAddrInfo(const addrinfo* info, IPAddress* out);
// True for 0.0.0.0 and ::.
bool IPIsAny(const IPAddress& ip);

class SocketAddress {
 public:
  SocketAddress() = default;
  // The IP stays unspecified when `host` is not an IP literal.
  SocketAddress(const std::string& host, int port);

  const std::string& hostname() const { return hostname_; }
  const IPAddress& ipaddr() const { return ip_; }
  std::uint16_t port() const { return port_; }  // host order
  int scope_id() const { return scope_id_; }
  bool IsLiteral() const { return literal_; }

  // The host name, or the IP (in brackets when it is IPv6).
  std::string HostAsURIString() const;
  // HostAsURIString, a colon and the port: "127.0.0.1:22", "[::1]:22".
  std::string ToString() const;
  // Sets all bytes to zero unless the IP is IPv4.
  void ToSockAddr(sockaddr_in* out) const;

 private:
  friend bool SocketAddressFromSockAddrStorage(const sockaddr_storage& in, SocketAddress* out);

  std::string hostname_;
  IPAddress ip_;
  std::uint16_t port_ = 0;
  int scope_id_ = 0;
  bool literal_ = false;
};

// Returns false, with `*out` unchanged, for families other than IPv4 and IPv6.
bool SocketAddressFromSockAddrStorage(const sockaddr_storage& in, SocketAddress* out);

// Splits at the first colon; the port may be empty. Returns false and changes nothing when there is no colon.
// Not for IPv6 literals, which contain colons.
bool SplitAtColon(const std::string& text, std::string& host, std::string& port);
// Splits a listening address: "host:port", "[ipv6]:port" or "[ipv6]" (port 0). The port is atoi's result,
// truncated to 16 bits. Returns false and changes nothing for other text.
bool SplitListenText(const std::string& text, std::string& host, int& port);

// The platform's functions of the same names.
int inet_pton(int family, const char* text, void* out);
const char* inet_ntop(int family, const void* in, char* buffer, unsigned int length);

}  // namespace gxbase

#endif  // GX_BASE_SOCKET_ADDRESS_H
