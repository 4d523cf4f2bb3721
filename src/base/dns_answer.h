// Answers in the form of the system resolver's, built from a record of the DNS cache. One block of fixed size
// holds an answer with everything it points to. When a record has more addresses than fit, the answer has the
// first ones that fit. Threads: one at a time per block.
#ifndef GX_BASE_DNS_ANSWER_H
#define GX_BASE_DNS_ANSWER_H

#include <netdb.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/dns_records.h"

// The arguments of getaddrinfo, except the name.
struct DnsQuery {
  int family = AF_UNSPEC;  // AF_UNSPEC: any
  int socktype = SOCK_STREAM;
  int protocol = 0;
  std::uint16_t port = 0;  // network order
  bool wants_name = false;

  // Looks up `service`, a number or a name, for the socket type in `hints`, without contacting a name server.
  // Both arguments may be null. Empty when the system does not know the service or the type.
  static std::optional<DnsQuery> Make(const char* service, const addrinfo* hints);
};

// A block that holds one addrinfo list.
class DnsAddrInfo {
 public:
  // Returns the first entry, which is at the start of the block. Returns null when the record has no address of
  // the requested family, or the requested canonical name does not fit.
  addrinfo* FillRecord(const DnsRecord& record, const DnsQuery& query);

 private:
  alignas(std::max_align_t) std::byte bytes_[5120]{};
};

// A block that holds one hostent. It answers with IPv4 addresses only, as gethostbyname does.
class DnsHostent {
 public:
  // Returns the start of the block. Null when the record has no IPv4 address or its name does not fit.
  hostent* FillRecord(const DnsRecord& record);

 private:
  alignas(std::max_align_t) std::byte bytes_[1424]{};
};

#endif  // GX_BASE_DNS_ANSWER_H
