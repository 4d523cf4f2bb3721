// Finds the addresses of a host name.
#ifndef GX_PEER_LOOKUP_H
#define GX_PEER_LOOKUP_H

#include <functional>
#include <string>
#include <vector>

namespace gxtool {

struct LookupResult {
  std::vector<std::string> addresses;  // numeric, in the order in which to try them
  std::string error;                   // why there are no addresses
};

// Answers at once. Called only for names, not for addresses.
using Lookup = std::function<LookupResult(const std::string& host)>;

// Receives the name servers' answer for a host and returns the answer to use: saves successful answers and may
// replace a failure by an older answer.
using AnswerCache = std::function<LookupResult(const std::string& host, LookupResult live)>;

struct NameSources {
  Lookup lookup;        // if set, answers all lookups
  std::string servers;  // if not empty, used instead of the system's: ADDRESS:PORT, separated by commas
  AnswerCache cache;    // may be empty
};

}  // namespace gxtool

#endif  // GX_PEER_LOOKUP_H
