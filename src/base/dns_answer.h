// Answers in the shape of the system resolver's, built from a record of the DNS cache. An answer lies, with all
// that it points to, inside one block of fixed size; of a record with more addresses than fit, as many are
// given as fit, in the record's order. Threads: one at a time per block.
#ifndef GX_BASE_DNS_ANSWER_H
#define GX_BASE_DNS_ANSWER_H

#include <netdb.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/dns_records.h"

// What a caller of getaddrinfo asked for besides the name.
struct DnsQuery {
  int family = AF_UNSPEC;  // AF_UNSPEC: any
  int socktype = SOCK_STREAM;
  int protocol = 0;
  std::uint16_t port = 0;  // network order
  bool wants_name = false;

  // Asks the system what `service`, a number or a name, is for the socket type in `hints`; no name server is
  // involved. Both may be null. Nothing when the system knows no such service or type.
  static std::optional<DnsQuery> Make(const char* service, const addrinfo* hints);
};

// A block that holds one addrinfo list.
class DnsAddrInfo {
 public:
  // The first entry, which lies at the start of the block. Null when the record has no address of the family
  // asked, or its name is asked and does not fit.
  addrinfo* FillRecord(const DnsRecord& record, const DnsQuery& query);

 private:
  alignas(std::max_align_t) std::byte bytes_[5120]{};
};

// A block that holds one hostent. It answers with IPv4 addresses only, as gethostbyname does.
class DnsHostent {
 public:
  // Lies at the start of the block. Null when the record has no IPv4 address or its name does not fit.
  hostent* FillRecord(const DnsRecord& record);

 private:
  alignas(std::max_align_t) std::byte bytes_[1424]{};
};

#endif  // GX_BASE_DNS_ANSWER_H
