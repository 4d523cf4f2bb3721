#include "base/dns_answer.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "base/socket_address.h"

namespace {

using gxbase::IPAddress;

// Allocates aligned, zeroed pieces from the front of a block.
class Room {
 public:
  Room(std::byte* block, std::size_t size) : at_(block), left_(size) {}

  // Null when there is not enough room left.
  template <class T>
  T* Take(std::size_t count = 1) {
    static_assert(std::is_trivially_destructible_v<T>);
    if (count > left_ / sizeof(T)) return nullptr;
    if (std::align(alignof(T), count * sizeof(T), at_, left_) == nullptr) return nullptr;
    T* const piece = static_cast<T*>(at_);
    std::uninitialized_value_construct_n(piece, count);
    at_ = piece + count;
    left_ -= count * sizeof(T);
    return piece;
  }

  // Copies the text with a terminator.
  char* TakeText(const std::string& text) {
    char* const copy = Take<char>(text.size() + 1);
    if (copy != nullptr) std::memcpy(copy, text.data(), text.size());
    return copy;
  }

 private:
  void* at_;
  std::size_t left_;
};

void Fill(sockaddr_in& out, const IPAddress& ip, in_port_t port) {
  out.sin_family = AF_INET;
  out.sin_port = port;
  out.sin_addr = ip.ipv4_address();
}

void Fill(sockaddr_in6& out, const IPAddress& ip, in_port_t port) {
  out.sin6_family = AF_INET6;
  out.sin6_port = port;
  out.sin6_addr = ip.ipv6_address();
}

// Allocates one list entry, directly followed by its address. Null when there is no room.
template <class SockAddr>
addrinfo* TakeEntry(Room& room, const IPAddress& ip, const DnsQuery& query) {
  struct Entry {
    addrinfo info;
    SockAddr address;
  };
  Entry* const entry = room.Take<Entry>();
  if (entry == nullptr) return nullptr;
  Fill(entry->address, ip, query.port);
  entry->info.ai_family = ip.family();
  entry->info.ai_socktype = query.socktype;
  entry->info.ai_protocol = query.protocol;
  entry->info.ai_addrlen = sizeof(SockAddr);
  entry->info.ai_addr = reinterpret_cast<sockaddr*>(&entry->address);
  return &entry->info;
}

// Returns the record's addresses of `family`; AF_UNSPEC: all.
std::vector<IPAddress> Select(const DnsRecord& record, int family) {
  std::vector<IPAddress> selected;
  for (const std::string& text : record.ips) {
    IPAddress ip;
    if (!gxbase::IPFromString(text, &ip)) continue;
    if (family == AF_UNSPEC || family == ip.family()) selected.push_back(ip);
  }
  return selected;
}

}  // namespace

std::optional<DnsQuery> DnsQuery::Make(const char* service, const addrinfo* hints) {
  addrinfo asked{};
  asked.ai_family = AF_INET;
  asked.ai_flags = AI_PASSIVE;  // without a name no server is contacted
  if (hints != nullptr) {
    asked.ai_flags |= hints->ai_flags & AI_NUMERICSERV;
    asked.ai_socktype = hints->ai_socktype;
    asked.ai_protocol = hints->ai_protocol;
  }
  addrinfo* found = nullptr;
  if (getaddrinfo(nullptr, service != nullptr ? service : "0", &asked, &found) != 0) return {};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
  sockaddr_in address;
  std::memcpy(&address, found->ai_addr, sizeof address);
  DnsQuery query{AF_UNSPEC, found->ai_socktype, found->ai_protocol, address.sin_port, false};
  if (hints != nullptr) {
    query.family = hints->ai_family;
    query.wants_name = (hints->ai_flags & AI_CANONNAME) != 0;
  }
  return query;
}

addrinfo* DnsAddrInfo::FillRecord(const DnsRecord& record, const DnsQuery& query) {
  Room room(bytes_, sizeof bytes_);
  addrinfo* first = nullptr;
  addrinfo** link = &first;
  for (const IPAddress& ip : Select(record, query.family)) {
    addrinfo* const entry = ip.family() == AF_INET ? TakeEntry<sockaddr_in>(room, ip, query)
                                                   : TakeEntry<sockaddr_in6>(room, ip, query);
    if (entry == nullptr) continue;  // an IPv4 address may still fit where an IPv6 address did not
    *link = entry;
    link = &entry->ai_next;
    if (entry != first || !query.wants_name) continue;
    entry->ai_canonname = room.TakeText(record.name);
    if (entry->ai_canonname == nullptr) return nullptr;
  }
  return first;
}

hostent* DnsHostent::FillRecord(const DnsRecord& record) {
  const std::vector<IPAddress> ips = Select(record, AF_INET);
  // The struct, the two null pointers that end its lists, and the name.
  const std::size_t fixed_bytes = sizeof(hostent) + 2 * sizeof(char*) + record.name.size() + 1;
  if (fixed_bytes > sizeof bytes_) return nullptr;
  const std::size_t fit = (sizeof bytes_ - fixed_bytes) / (sizeof(char*) + sizeof(in_addr));
  const std::size_t count = std::min(ips.size(), fit);
  if (count == 0) return nullptr;

  Room room(bytes_, sizeof bytes_);  // pieces in order of decreasing alignment: no padding between them
  hostent* const host = room.Take<hostent>();
  host->h_aliases = room.Take<char*>();
  host->h_addr_list = room.Take<char*>(count + 1);
  in_addr* const addresses = room.Take<in_addr>(count);
  host->h_name = room.TakeText(record.name);
  for (std::size_t i = 0; i < count; ++i) {
    addresses[i] = ips[i].ipv4_address();
    host->h_addr_list[i] = reinterpret_cast<char*>(&addresses[i]);
  }
  host->h_addrtype = AF_INET;
  host->h_length = sizeof(in_addr);
  return host;
}
