#include "base/dns_cache.h"

#include <errno.h>
#include <time.h>

#include <cstddef>
#include <optional>
#include <utility>

#include "base/file_stream.h"
#include "base/shared_file.h"
#include "base/singleton.h"
#include "base/socket_address.h"

namespace {

using gxbase::FileStream;
using gxbase::IPAddress;

constexpr std::size_t kMaxFileBytes = 0x500000;
constexpr std::size_t kMaxUnprunedRecords = 200;

std::uint32_t Now() { return static_cast<std::uint32_t>(time(nullptr)); }

// Returns an empty string when the file cannot be read completely or is larger than kMaxFileBytes.
std::string ReadFile(const std::string& path) {
  FileStream file;
  std::size_t size = 0;
  if (!file.Open(path, "rb", nullptr) || !file.GetSize(&size)) return {};
  if (size == 0 || size > kMaxFileBytes) return {};
  std::string text(size, '\0');
  std::size_t read = 0;
  if (file.Read(text.data(), size, &read, nullptr) != gxbase::SR_SUCCESS || read < size) return {};
  return text;
}

// Returns a record without addresses when there is nothing to save.
DnsCache::Record Ai2Record(const char* node, const addrinfo* list) {
  if (node == nullptr) return {};
  DnsCache::Record record{node, {}, Now()};
  for (; list != nullptr; list = list->ai_next) {
    IPAddress ip;
    if (gxbase::IPFromAddrInfo(list, &ip)) record.ips.push_back(ip.ToString());
  }
  return record;
}

DnsCache::Record Hostent2Record(const char* name, const hostent& host) {
  if (name == nullptr || host.h_addr_list == nullptr) return {};
  DnsCache::Record record{name, {}, Now()};
  for (char** address = host.h_addr_list; *address != nullptr; ++address) {
    char text[INET6_ADDRSTRLEN];
    if (gxbase::inet_ntop(host.h_addrtype, *address, text, sizeof text) != nullptr) {
      record.ips.emplace_back(text);
    }
  }
  return record;
}

}  // namespace

DnsCache::DnsCache() {
  const auto destroy = [](void* block) { delete static_cast<Hostent*>(block); };
  has_hostent_key_ = pthread_key_create(&hostent_key_, destroy) == 0;
}

DnsCache::~DnsCache() {
  if (!has_hostent_key_) return;
  delete static_cast<Hostent*>(pthread_getspecific(hostent_key_));
  pthread_key_delete(hostent_key_);
}

bool DnsCache::Init(DnsCacheStorage* storage, unsigned max_age, unsigned refresh) {
  const CAutoLock lock(lock_);
  storage_ = storage;
  if (storage != nullptr) Enable(max_age, refresh);
  return storage != nullptr;
}

bool DnsCache::Init(const std::string& path, unsigned max_age, unsigned refresh) {
  if (path.empty()) return false;
  try {
    std::string copy = path;
    const CAutoLock lock(lock_);
    path_ = std::move(copy);
    storage_ = nullptr;
    Enable(max_age, refresh);
    return true;
  } catch (...) {
    return false;
  }
}

void DnsCache::Enable(unsigned max_age, unsigned refresh) {
  max_age_ = max_age;
  refresh_interval_ = refresh;
  enabled_ = true;
}

int DnsCache::getaddrinfo_local(const char* node, const char* service, const addrinfo* hints, addrinfo** res,
                                int code) {
  if (res == nullptr) return code;
  const int error = errno;  // part of the result when the code is EAI_SYSTEM
  try {
    const bool found = code == 0 && *res != nullptr;
    const std::optional<DnsQuery> query = found ? DnsQuery() : DnsQuery::Make(service, hints);
    const CAutoLock lock(lock_);
    if (enabled_ && found) {
      WriteRecord(Ai2Record(node, *res));
    } else if (enabled_ && query) {
      const Record* const record = ReadRecord(node);
      addrinfo* const list = record != nullptr ? Record2Ai(*record, *query) : nullptr;
      if (list != nullptr) {
        *res = list;
        code = 0;
      }
    }
  } catch (...) {
    // Out of memory, or the storage threw: return the live result.
  }
  errno = error;
  return code;
}

addrinfo* DnsCache::Record2Ai(const Record& record, const DnsQuery& query) {
  auto block = std::make_unique<AddrInfo>();
  addrinfo* const list = block->FillRecord(record, query);
  if (list != nullptr) results_.emplace(list, std::move(block));
  return list;
}

void DnsCache::freeaddrinfo_local(addrinfo* res) {
  if (res == nullptr) return;
  {
    const CAutoLock lock(lock_);
    if (results_.erase(res) != 0) return;
  }
  freeaddrinfo(res);
}

hostent* DnsCache::gethostbyname_local(const char* name, hostent* host) {
  try {
    const CAutoLock lock(lock_);
    if (!enabled_) return host;
    if (host != nullptr) {
      WriteRecord(Hostent2Record(name, *host));
      return host;
    }
    const Record* const record = ReadRecord(name);
    Hostent* const block = record != nullptr ? ThreadHostent() : nullptr;
    return block != nullptr ? block->FillRecord(*record) : nullptr;
  } catch (...) {
    return host;
  }
}

DnsCache::Hostent* DnsCache::ThreadHostent() const {
  if (!has_hostent_key_) return nullptr;
  if (void* const block = pthread_getspecific(hostent_key_)) return static_cast<Hostent*>(block);
  auto block = std::make_unique<Hostent>();
  return pthread_setspecific(hostent_key_, block.get()) == 0 ? block.release() : nullptr;
}

void DnsCache::freehost_local(hostent* host) {
  if (host == nullptr || !has_hostent_key_) return;
  void* const block = pthread_getspecific(hostent_key_);
  if (block != host) return;  // the system owns it
  pthread_setspecific(hostent_key_, nullptr);
  delete static_cast<Hostent*>(block);
}

const DnsCache::Record* DnsCache::ReadRecord(const char* name) {
  if (name == nullptr) return nullptr;
  auto found = records_.find(name);
  if (found == records_.end()) {
    ReadCache();
    found = records_.find(name);
  }
  return found != records_.end() ? &found->second : nullptr;
}

void DnsCache::WriteRecord(const Record& record) {
  if (record.ips.empty()) return;
  // This compares the age of the new record, made just now, so in practice every answer is written.
  const std::uint32_t now = Now();
  const bool fresh = now > record.timestamp && now - record.timestamp < refresh_interval_;
  if (fresh && records_.count(record.name) != 0) return;
  std::optional<gxbase::SharedFile> file;
  if (storage_ == nullptr) file.emplace(path_);  // locks the file from our read to our write
  ReadCache();
  records_.insert_or_assign(record.name, record);
  const std::string text = FormatDnsRecords(records_);
  if (file) {
    file->Write(text);
  } else {
    storage_->Write(text);
  }
}

void DnsCache::ReadCache() {
  std::string text;
  if (storage_ == nullptr) {
    text = ReadFile(path_);
  } else if (!storage_->Read(&text)) {
    return;
  }
  for (auto& [name, record] : ParseDnsRecords(text)) {
    // After a failed save the record in memory is the newer one.
    const auto known = records_.find(name);
    if (known == records_.end() || known->second.timestamp < record.timestamp)
      records_[name] = std::move(record);
  }
  if (max_age_ == 0 || records_.size() <= kMaxUnprunedRecords) return;
  std::erase_if(records_, [now = Now(), max_age = max_age_](const auto& entry) {
    const std::uint32_t timestamp = entry.second.timestamp;
    return timestamp > now || now - timestamp > max_age;
  });
}

bool dnscache_init(DnsCacheStorage* storage, unsigned max_age, unsigned refresh) {
  return CSingleton_T<DnsCache>::Instance()->Init(storage, max_age, refresh);
}

bool dnscache_init(const std::string& path, unsigned max_age, unsigned refresh) {
  return CSingleton_T<DnsCache>::Instance()->Init(path, max_age, refresh);
}

int dnscache_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res) {
  const int code = getaddrinfo(node, service, hints, res);
  return dnscache_getaddrinfo_local(node, service, hints, res, code);
}

int dnscache_getaddrinfo_local(const char* node, const char* service, const addrinfo* hints, addrinfo** res,
                               int code) {
  return CSingleton_T<DnsCache>::Instance()->getaddrinfo_local(node, service, hints, res, code);
}

void dnscache_freeaddrinfo(addrinfo* res) { CSingleton_T<DnsCache>::Instance()->freeaddrinfo_local(res); }

hostent* dnscache_gethostbyname(const char* name) {
  return dnscache_gethostbyname_local(name, gethostbyname(name));
}

hostent* dnscache_gethostbyname_local(const char* name, hostent* host) {
  return CSingleton_T<DnsCache>::Instance()->gethostbyname_local(name, host);
}

void dnscache_freehost(hostent* host) { CSingleton_T<DnsCache>::Instance()->freehost_local(host); }
