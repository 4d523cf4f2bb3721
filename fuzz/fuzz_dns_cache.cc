// The text of the DNS cache's file: any text can be read, used for answers and written again, and a second
// round trip through text changes nothing.
#include <memory>

#include "base/dns_cache.h"
#include "base/socket_address.h"
#include "check.h"

namespace {

class TextStorage final : public DnsCacheStorage {
 public:
  explicit TextStorage(const std::string& text) : text_(text) {}
  bool Read(std::string* text) override {
    *text = text_;
    return true;
  }
  bool Write(const std::string& text) override {
    text_ = text;
    return true;
  }

 private:
  std::string text_;
};

void Answer(const DnsRecord& record) {
  Check(!record.ips.empty());
  for (const int family : {AF_UNSPEC, AF_INET, AF_INET6}) {
    const auto block = std::make_unique<DnsAddrInfo>();
    const DnsQuery query{family, SOCK_STREAM, 0, 0, family != AF_UNSPEC};
    for (const addrinfo* info = block->FillRecord(record, query); info != nullptr; info = info->ai_next) {
      gxbase::IPAddress ip;
      Check(gxbase::IPFromAddrInfo(info, &ip));
      Check(family == AF_UNSPEC || family == ip.family());
    }
  }
  const auto block = std::make_unique<DnsHostent>();
  if (const hostent* host = block->FillRecord(record)) Check(host->h_addr_list[0] != nullptr);
}

void AnswerThroughTheCache(const std::string& text, const std::string& name) {
  TextStorage storage(text);
  DnsCache cache;
  cache.Init(&storage, 1, 0);
  addrinfo* list = nullptr;
  const int code = cache.getaddrinfo_local(name.c_str(), "22", nullptr, &list, EAI_AGAIN);
  Check(code == (list != nullptr ? 0 : EAI_AGAIN));
  // Pass the list back as a live answer, so that the cache saves it.
  if (list != nullptr) cache.getaddrinfo_local("another", nullptr, nullptr, &list, 0);
  cache.freeaddrinfo_local(list);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Text(data, size);
  const DnsRecords records = ParseDnsRecords(text);
  for (const auto& [name, record] : records) Answer(record);
  // The first writing replaces names that are not UTF-8.
  const std::string written = FormatDnsRecords(ParseDnsRecords(FormatDnsRecords(records)));
  Check(FormatDnsRecords(ParseDnsRecords(written)) == written);
  AnswerThroughTheCache(text, records.empty() ? "host" : records.begin()->first);
  return 0;
}
