#include "peer/name_cache.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <cstddef>
#include <vector>

#include "base/dns_cache.h"

namespace gxtool {
namespace {

// A list in the form of getaddrinfo's.
class AddressList {
 public:
  explicit AddressList(const std::vector<std::string>& addresses) : entries_(addresses.size()) {
    std::size_t used = 0;
    for (const std::string& text : addresses) used += entries_[used].Set(text) ? 1 : 0;
    for (std::size_t i = 1; i < used; ++i) entries_[i - 1].info.ai_next = &entries_[i].info;
    empty_ = used == 0;
  }

  addrinfo* first() { return empty_ ? nullptr : &entries_.front().info; }

 private:
  struct Entry {
    bool Set(const std::string& text) {
      info.ai_socktype = SOCK_STREAM;
      if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
        v4.sin_family = AF_INET;
        Point(AF_INET, &v4, sizeof v4);
      } else if (inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) == 1) {
        v6.sin6_family = AF_INET6;
        Point(AF_INET6, &v6, sizeof v6);
      }
      return info.ai_addr != nullptr;
    }
    void Point(int family, void* address, socklen_t length) {
      info.ai_family = family;
      info.ai_addr = static_cast<sockaddr*>(address);
      info.ai_addrlen = length;
    }

    addrinfo info{};
    sockaddr_in v4{};
    sockaddr_in6 v6{};
  };

  std::vector<Entry> entries_;  // fixed size: the entries point to each other
  bool empty_ = true;
};

std::string Text(const addrinfo& entry) {
  char text[INET6_ADDRSTRLEN] = "";
  const void* const address =
      entry.ai_family == AF_INET
          ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(entry.ai_addr)->sin_addr)
          : &reinterpret_cast<const sockaddr_in6*>(entry.ai_addr)->sin6_addr;
  inet_ntop(entry.ai_family, address, text, sizeof text);
  return text;
}

LookupResult KeepOrRecall(const std::string& host, LookupResult live) {
  AddressList list(live.addresses);
  addrinfo* answer = list.first();
  if (answer != nullptr) {
    dnscache_getaddrinfo_local(host.c_str(), nullptr, nullptr, &answer, 0);
    return live;
  }
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  if (dnscache_getaddrinfo_local(host.c_str(), nullptr, &hints, &answer, EAI_AGAIN) != 0) return live;
  LookupResult known;
  for (const addrinfo* entry = answer; entry != nullptr; entry = entry->ai_next) {
    known.addresses.push_back(Text(*entry));
  }
  dnscache_freeaddrinfo(answer);
  return known;
}

}  // namespace

const bool kHasNameCache = true;

AnswerCache OpenNameCache(const NameCacheOptions& options) {
  dnscache_init(options.file, options.max_age, options.refresh);
  return KeepOrRecall;
}

}  // namespace gxtool
