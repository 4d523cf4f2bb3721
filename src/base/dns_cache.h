// Host-name look-ups that survive a failing resolver: every look-up is made live first, a good answer is kept
// in a file, and a failed look-up is answered from there.
//
// Until one of the two dnscache_init has succeeded, everything passes straight through to the system. No call
// throws and none logs: an unreadable, oversized or damaged file is an empty cache, and what could not be saved
// is still known in memory. After each good answer what the file holds by then is merged in, the newer record
// of two wins, and the file is replaced: processes may share one, and a crash or a full disk costs nothing (see
// SharedFile, also for folders where that cannot be done).
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

// Keeps the cache's text in place of the file. Supplied by the embedding application. Threads: any, one call at
// a time; it must not call the cache.
class DnsCacheStorage {
 public:
  // The whole text that was written last. False: there is none.
  virtual bool Read(std::string* text) = 0;
  virtual bool Write(const std::string& text) = 0;

 protected:
  ~DnsCacheStorage() = default;  // the table starts with Read; the cache never deletes a storage
};

// Where the cache is kept: `storage`, which has to outlive its use and is not owned, or the file at `path`; the
// last successful call counts. With more than 200 records, those older than `max_age` seconds are dropped; 0
// keeps all. `refresh` is in seconds, too. False, and the cache is no more enabled than it was, for a null
// storage (which takes the storage back) and for an empty path.
bool dnscache_init(DnsCacheStorage* storage, unsigned max_age, unsigned refresh);
bool dnscache_init(const std::string& path, unsigned max_age, unsigned refresh);

// As the system's getaddrinfo. An answer from the cache, too, has the port of `service` and the type and
// protocol asked in `hints` (a stream when none is). Give the list to dnscache_freeaddrinfo. Threads: any.
int dnscache_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** res);
// The second half of it, for a caller that has made the live look-up with the result `code`: keeps a good
// answer and returns 0; otherwise answers from the cache and returns 0, or returns `code`.
int dnscache_getaddrinfo_local(const char* node, const char* service, const addrinfo* hints, addrinfo** res,
                               int code);
// Frees a list from the cache or from the system.
void dnscache_freeaddrinfo(addrinfo* res);

// As the system's gethostbyname, including its static result: the live look-up is for one thread at a time. An
// answer from the cache belongs to the calling thread and is valid until its next one, dnscache_freehost or the
// thread's end.
hostent* dnscache_gethostbyname(const char* name);
// The second half of it: `host` is the result of the live look-up, null when it failed.
hostent* dnscache_gethostbyname_local(const char* name, hostent* host);
// Frees this thread's answer from the cache; does nothing with a result of the system.
void dnscache_freehost(hostent* host);

// Behind the functions above, as CSingleton_T<DnsCache>. Threads: any. The one lock is held while the file is
// read or written.
class DnsCache {
 public:
  using Record = DnsRecord;
  using AddrInfo = DnsAddrInfo;
  using Hostent = DnsHostent;

  DnsCache();
  DnsCache(const DnsCache&) = delete;
  DnsCache& operator=(const DnsCache&) = delete;
  // Frees the lists that are still out, and the calling thread's hostent.
  ~DnsCache();

  bool Init(DnsCacheStorage* storage, unsigned max_age, unsigned refresh);
  bool Init(const std::string& path, unsigned max_age, unsigned refresh);

  int getaddrinfo_local(const char* node, const char* service, const addrinfo* hints, addrinfo** res, int code);
  void freeaddrinfo_local(addrinfo* res);

  hostent* gethostbyname_local(const char* name, hostent* host);
  void freehost_local(hostent* host);

 private:
  void Enable(unsigned max_age, unsigned refresh) REQUIRES(lock_);
  // Null: not known, not even to the file.
  const Record* ReadRecord(const char* name) REQUIRES(lock_);
  void WriteRecord(const Record& record) REQUIRES(lock_);
  void ReadCache() REQUIRES(lock_);
  // Null: the record gives no list.
  addrinfo* Record2Ai(const Record& record, const DnsQuery& query) REQUIRES(lock_);
  // This thread's block; null when it cannot be kept.
  Hostent* ThreadHostent() const;

  CMutexLock lock_;
  std::string path_ GUARDED_BY(lock_) = "./dnscache.json";
  DnsCacheStorage* storage_ GUARDED_BY(lock_) = nullptr;  // not owned; null: the file
  DnsRecords records_ GUARDED_BY(lock_);
  std::map<addrinfo*, std::unique_ptr<AddrInfo>> results_ GUARDED_BY(lock_);  // by the list's first entry
  bool enabled_ GUARDED_BY(lock_) = false;
  std::uint32_t max_age_ GUARDED_BY(lock_) = 0;           // seconds
  std::uint32_t refresh_interval_ GUARDED_BY(lock_) = 0;  // seconds
  pthread_key_t hostent_key_{};                           // fixed at construction
  bool has_hostent_key_ = false;
};

#endif  // GX_BASE_DNS_CACHE_H
