#include "base/socket_address.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace gxbase {

IPAddress::IPAddress(const in_addr& ipv4) : family_(AF_INET) { std::memcpy(&bytes_, &ipv4, sizeof ipv4); }

IPAddress::IPAddress(const in6_addr& ipv6) : family_(AF_INET6), bytes_(ipv6) {}

in_addr IPAddress::ipv4_address() const {
  in_addr ipv4;
  std::memcpy(&ipv4, &bytes_, sizeof ipv4);
  return ipv4;
}

in6_addr IPAddress::ipv6_address() const { return bytes_; }

std::string IPAddress::ToString() const {
  char text[INET6_ADDRSTRLEN];
  if (family_ != AF_INET && family_ != AF_INET6) return {};
  return gxbase::inet_ntop(family_, &bytes_, text, sizeof text) == nullptr ? std::string() : std::string(text);
}

bool IPFromString(const std::string& text, IPAddress* out) {
  if (out == nullptr) return false;
  in_addr ipv4;
  in6_addr ipv6;
  *out = IPAddress();
  if (text.find('\0') != std::string::npos) return false;  // inet_pton would read only the part before it
  if (gxbase::inet_pton(AF_INET, text.c_str(), &ipv4) == 1) {
    *out = IPAddress(ipv4);
  } else if (gxbase::inet_pton(AF_INET6, text.c_str(), &ipv6) == 1) {
    *out = IPAddress(ipv6);
  }
  return out->family() != AF_UNSPEC;
}

bool IPFromAddrInfo(const addrinfo* info, IPAddress* out) {
  if (info == nullptr || info->ai_addr == nullptr || out == nullptr) return false;
  sockaddr_storage storage{};
  std::memcpy(&storage, info->ai_addr, std::min(std::size_t{info->ai_addrlen}, sizeof storage));
  SocketAddress address;
  if (!SocketAddressFromSockAddrStorage(storage, &address)) return false;
  *out = address.ipaddr();
  return true;
}

bool IPIsAny(const IPAddress& ip) {
  if (ip.family() == AF_INET) return ip.ipv4_address().s_addr == INADDR_ANY;
  const in6_addr ipv6 = ip.ipv6_address();
  return ip.family() == AF_INET6 && IN6_IS_ADDR_UNSPECIFIED(&ipv6);
}

SocketAddress::SocketAddress(const std::string& host, int port)
    : hostname_(host), port_(static_cast<std::uint16_t>(port)), literal_(IPFromString(host, &ip_)) {}

std::string SocketAddress::HostAsURIString() const {
  if (!literal_ && !hostname_.empty()) return hostname_;
  return ip_.family() == AF_INET6 ? "[" + ip_.ToString() + "]" : ip_.ToString();
}

std::string SocketAddress::ToString() const { return HostAsURIString() + ":" + std::to_string(port_); }

void SocketAddress::ToSockAddr(sockaddr_in* out) const {
  std::memset(out, 0, sizeof *out);
  if (ip_.family() != AF_INET) return;
  out->sin_family = AF_INET;
  out->sin_port = htons(port_);
  out->sin_addr = ip_.ipv4_address();
}

bool SocketAddressFromSockAddrStorage(const sockaddr_storage& in, SocketAddress* out) {
  if (out == nullptr) return false;
  SocketAddress address;
  if (in.ss_family == AF_INET6) {
    sockaddr_in6 ipv6;
    std::memcpy(&ipv6, &in, sizeof ipv6);
    address.ip_ = IPAddress(ipv6.sin6_addr);
    address.port_ = ntohs(ipv6.sin6_port);
    address.scope_id_ = static_cast<int>(ipv6.sin6_scope_id);
  } else if (in.ss_family == AF_INET) {
    sockaddr_in ipv4;
    std::memcpy(&ipv4, &in, sizeof ipv4);
    address.ip_ = IPAddress(ipv4.sin_addr);
    address.port_ = ntohs(ipv4.sin_port);
  } else {
    return false;
  }
  *out = address;
  return true;
}

bool SplitAtColon(const std::string& text, std::string& host, std::string& port) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) return false;
  host = text.substr(0, colon);
  port = text.substr(colon + 1);
  return true;
}

bool SplitListenText(const std::string& text, std::string& host, int& port) {
  std::string digits;
  if (text.empty() || text[0] != '[') {
    if (!SplitAtColon(text, host, digits)) return false;
  } else {
    const std::size_t bracket = text.find(']');
    if (bracket == std::string::npos) return false;
    host = text.substr(1, bracket - 1);
    std::string between;
    SplitAtColon(text.substr(bracket + 1), between, digits);
  }
  port = static_cast<std::uint16_t>(std::atoi(digits.c_str()));
  return true;
}

int inet_pton(int family, const char* text, void* out) { return ::inet_pton(family, text, out); }

const char* inet_ntop(int family, const void* in, char* buffer, unsigned int length) {
  return ::inet_ntop(family, in, buffer, length);
}

}  // namespace gxbase
