// The records of the DNS cache, and their JSON text.
//
//   {
//     "cache": [
//       { "name": "host.example", "ips": ["192.0.2.1", "2001:db8::1"], "timestamp": 1700000000 }
//     ]
//   }
//
// Pure functions over the caller's memory: any thread.
#ifndef GX_BASE_DNS_RECORDS_H
#define GX_BASE_DNS_RECORDS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The last good answer for one name.
struct DnsRecord {
  std::string name;              // as requested
  std::vector<std::string> ips;  // IPv4 and IPv6 literals, in the order of the answer
  std::uint32_t timestamp = 0;   // seconds since 1970, when the answer arrived
};

using DnsRecords = std::map<std::string, DnsRecord>;  // key: the name

// Returns the records in `text`; of two with the same name, the later one. `text` may come from any source:
// invalid records are skipped, and text that is not a JSON object or nests too deeply yields no records. A
// record needs a string as its name, at least one address, and a timestamp from 0 to 2^32 - 1, whose fraction
// is dropped. Throws only std::bad_alloc.
DnsRecords ParseDnsRecords(const std::string& text);

// Returns JSON text that ParseDnsRecords can read back.
std::string FormatDnsRecords(const DnsRecords& records);

#endif  // GX_BASE_DNS_RECORDS_H
