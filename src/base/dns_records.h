// What the DNS cache knows, and the text in which it is kept.
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
  std::string name;              // as asked
  std::vector<std::string> ips;  // IPv4 and IPv6 literals, in the order of the answer
  std::uint32_t timestamp = 0;   // seconds since 1970, when the answer came
};

using DnsRecords = std::map<std::string, DnsRecord>;  // by name

// The records that `text` holds; of two with the same name the later one. The text may come from anywhere: what
// is no record is skipped, and text that is no JSON object, or nests without end, holds none. A record has a
// text for its name, at least one address, and a number from 0 to 2^32 - 1 for its timestamp, of which the
// fraction is dropped. Throws nothing but std::bad_alloc.
DnsRecords ParseDnsRecords(const std::string& text);

// The text from which ParseDnsRecords reads `records` back.
std::string FormatDnsRecords(const DnsRecords& records);

#endif  // GX_BASE_DNS_RECORDS_H
