// Host-name lookups that keep working when the resolver fails: every lookup goes to the resolver first; a
// successful answer is saved in a file, and a failed lookup is answered from there.
//
// Until one of the two dnscache_init functions has succeeded, all calls pass straight through to the system. No
// call throws or logs: an unreadable, oversized or damaged file counts as an empty cache, and records that
// could not be saved stay in memory. After each successful answer the file's current contents are merged in,
// the newer of two records for one name wins, and the file is replaced. So processes may share a file, and a
// crash or a full disk loses nothing (see SharedFile, also for folders where a file cannot be replaced).
#ifndef GX_BASE_DNS_CACHE_H
#define GX_BASE_DNS_CACHE_H

#include <netdb.h>
#include <pthread.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "base/dns_answer.h"
#include "base/dns_records.h"
#include "base/mutex_lock.h"

// Stores the cache's text instead of a file. The embedding application implements it. Threads: any, one call at
// a time; it must not call the cache.
class DnsCacheStorage {
 public:
  // Reads the whole text that was written last. False: there is none.
  virtual bool Read(std::string* text) = 0;
  virtual bool Write(const std::string& text) = 0;

 protected:
  ~DnsCacheStorage() = default;  // the virtual table starts with Read; the cache never deletes a storage
};

// Sets where the cache is stored: in `storage`, which is borrowed and must outlive its use, or in the file at
// `path`; the last successful call counts. With more than 200 records, those older than `max_age` seconds are
// dropped; 0 keeps all. `refresh` is in seconds, too. Returns false, without enabling the cache, for a null
// storage (which removes the storage) and for an empty path.
bool dnscache_init(DnsCacheStorage* storage, unsigned max_age, unsigned refresh);
bool dnscache_init(const std::string& path, unsigned max_age, unsigned refresh);

// Like the system's getaddrinfo. An answer from the cache has the port of `service` and the type and protocol
// in `hints` (a stream socket by default). Free the list with dnscache_freeaddrinfo. Threads: any.
int dnscache_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res);
// The second half of dnscache_getaddrinfo, for a caller that has made the live lookup with the result `code`:
// saves a successful answer and returns 0; otherwise returns 0 with an answer from the cache, or returns
// `code`.
int dnscache_getaddrinfo_local(const char* node, const char* service, const addrinfo* hints, addrinfo** res,
                               int code);
// Frees a list from the cache or from the system.
void dnscache_freeaddrinfo(addrinfo* res);

// Like the system's gethostbyname, which has a static result: one thread at a time may make the live lookup. An
// answer from the cache belongs to the calling thread and is valid until that thread's next lookup, its
// dnscache_freehost or its end.
hostent* dnscache_gethostbyname(const char* name);
// The second half of dnscache_gethostbyname: `host` is the result of the live lookup, null when it failed.
hostent* dnscache_gethostbyname_local(const char* name, hostent* host);
// Frees this thread's answer from the cache; a result of the system is left alone.
void dnscache_freehost(hostent* host);

// Implements the functions above, as CSingleton_T<DnsCache>. Threads: any. Its lock is held while the file is
// read or written.
class DnsCache {
 public:
  using Record = DnsRecord;
  using AddrInfo = DnsAddrInfo;
  using Hostent = DnsHostent;

  DnsCache();
  DnsCache(const DnsCache&) = delete;
  DnsCache& operator=(const DnsCache&) = delete;
  // Frees all lists that are still in use, and the calling thread's hostent.
  ~DnsCache();

  bool Init(DnsCacheStorage* storage, unsigned max_age, unsigned refresh);
  bool Init(const std::string& path, unsigned max_age, unsigned refresh);

  int getaddrinfo_local(const char* node, const char* service, const addrinfo* hints, addrinfo** res, int code);
  void freeaddrinfo_local(addrinfo* res);

  hostent* gethostbyname_local(const char* name, hostent* host);
  void freehost_local(hostent* host);

 private:
  void Enable(unsigned max_age, unsigned refresh) REQUIRES(lock_);
  // Null: neither memory nor the file has a record.
  const Record* ReadRecord(const char* name) REQUIRES(lock_);
  void WriteRecord(const Record& record) REQUIRES(lock_);
  void ReadCache() REQUIRES(lock_);
  // Null: the record has no address for the query.
  addrinfo* Record2Ai(const Record& record, const DnsQuery& query) REQUIRES(lock_);
  // This thread's block; null when it cannot be stored.
  Hostent* ThreadHostent() const;

  CMutexLock lock_;
  std::string path_ GUARDED_BY(lock_) = "./dnscache.json";
  DnsCacheStorage* storage_ GUARDED_BY(lock_) = nullptr;  // not owned; null: the file
  DnsRecords records_ GUARDED_BY(lock_);
  std::map<addrinfo*, std::unique_ptr<AddrInfo>> results_ GUARDED_BY(lock_);  // key: the list's first entry
  bool enabled_ GUARDED_BY(lock_) = false;
  std::uint32_t max_age_ GUARDED_BY(lock_) = 0;           // seconds
  std::uint32_t refresh_interval_ GUARDED_BY(lock_) = 0;  // seconds
  pthread_key_t hostent_key_{};                           // fixed at construction
  bool has_hostent_key_ = false;
};

#endif  // GX_BASE_DNS_CACHE_H
