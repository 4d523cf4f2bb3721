// From a host name to its addresses.
#ifndef GX_PEER_LOOKUP_H
#define GX_PEER_LOOKUP_H

#include <functional>
#include <string>
#include <vector>

namespace gxtool {

struct LookupResult {
  std::vector<std::string> addresses;  // numeric, in the order in which they are to be tried
  std::string error;                   // why there are none
};

// Answers at once for a name, never for an address.
using Lookup = std::function<LookupResult(const std::string& host)>;

// Sees what the name servers said of a host and returns what is to be believed: remembers good answers, and may
// give an older one in place of a failure.
using AnswerCache = std::function<LookupResult(const std::string& host, LookupResult live)>;

struct NameSources {
  Lookup lookup;        // answers everything, if there is one
  std::string servers;  // asked in place of the system's unless empty: ADDRESS:PORT, divided by commas
  AnswerCache cache;    // may be empty
};

}  // namespace gxtool

#endif  // GX_PEER_LOOKUP_H
