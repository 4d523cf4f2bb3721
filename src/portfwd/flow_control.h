// How far the reader of the plugin stream may run ahead of the local clients.
#ifndef GX_PORTFWD_FLOW_CONTROL_H
#define GX_PORTFWD_FLOW_CONTROL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <set>

#include "base/clock.h"
#include "base/mutex_lock.h"

// The wire has no window, so what a client does not take piles up in memory. This object knows what each
// connection owes, when its client last took a byte, and since when the host's Write has taken none. Past a
// mark the reader waits here until a 64th of it is gone: every other connection waits as well, so no longer.
//
// When Write is stuck as well, the far side may be waiting for the reader: then the reader goes on, up to twice
// the mark, where it waits again. A connection that holds the reader up for too long is cut.
//
// One per plugin stream. Threads: WaitForRoom is the reader's; everything else is for any thread. It never
// calls out while it holds its lock.
class CFlowControl {
 public:
  using Clock = std::uint64_t (*)();  // milliseconds

  struct Limits {
    std::uint64_t connection_bytes = 64 * 1024 * 1024;  // held for one connection
    std::uint64_t total_bytes = 256 * 1024 * 1024;      // held for all of them
    std::uint64_t stuck_ms = 3'000;   // Write takes no byte: the far side does not read; not merely slowly
    std::uint64_t jam_ms = 5'000;     // the same, at twice the mark: a connection is cut
    std::uint64_t stall_ms = 60'000;  // a client takes no byte while the reader waits: it is cut
  };

  // Memory that a queued block takes beside its payload: its entry, the buffer object, the allocator's
  // rounding.
  static constexpr std::uint64_t kBlockBytes = 256;

  // Bytes held, and whether they are too many.
  struct Level {
    explicit Level(std::uint64_t limit_bytes = 0) : limit(limit_bytes) {}
    bool IsFarOver() const { return bytes > 2 * limit; }

    std::uint64_t limit;
    std::uint64_t bytes = 0;
    bool waits = false;  // from past the limit until a 64th of it is gone
    std::uint64_t waits_since_ms = 0;
    bool full = false;  // an episode, which is told once: from past the limit down to half of it
  };

  // What one connection owes. A member of its handler; guarded by the lock of the flow control that it is open
  // in.
  class Account {
   public:
    Account() = default;
    Account(const Account&) = delete;
    Account& operator=(const Account&) = delete;

   private:
    friend class CFlowControl;
    std::uint32_t id_ = 0;
    bool open_ = false;
    Level level_;
    std::uint64_t took_ms_ = 0;  // when the client last took a byte; kept while somebody waits
  };

  explicit CFlowControl(const Limits& limits, Clock now = &gettickcount)
      : limits_(limits), now_(now), total_(limits.total_bytes) {}

  // The account takes part until Close, which must come before it goes.
  void Open(Account& account, std::uint32_t id);
  void Close(Account& account);

  enum class Filled { kNothing, kConnection, kTotal };
  // A block of `payload` bytes is queued for the client. Tells which limit it has passed, once each time.
  Filled Queued(Account& account, std::uint64_t payload);
  // The client has taken some of it; has taken all of a block of `payload` bytes.
  void Took(Account& account);
  void Released(Account& account, std::uint64_t payload);

  // The host's Write is called at `now_ms`, or has taken a part and is called again for the rest; the last of
  // these calls has returned.
  void WriteWaits(std::uint64_t now_ms);
  void WriteEnds() { write_waits_since_ms_.store(0); }

  // Blocks while the reader has to wait for `account`, or for all together. The id of a connection to
  // disconnect, which is out of the accounts already, and then the reader asks again; nothing: go on.
  std::optional<std::uint32_t> WaitForRoom(Account& account);
  // WaitForRoom returns at once from here on.
  void Stop();

  // One look of WaitForRoom.
  struct Verdict {
    enum Action { kGoOn, kWait, kCut } action;
    std::uint64_t until_ms = 0;  // kWait: look again then, or when something has changed; kNever: only then
    std::uint32_t id = 0;        // kCut
  };
  static constexpr std::uint64_t kNever = ~std::uint64_t{0};
  Verdict Look(Account& account);

  std::uint64_t Owed(const Account& account) const;

 private:
  bool Add(Level& level, std::uint64_t bytes) REQUIRES(mutex_);
  void Subtract(Level& level, std::uint64_t bytes) REQUIRES(mutex_);
  Verdict Judge(Account& account) REQUIRES(mutex_);
  std::uint64_t StalledSince(const Account& account) const REQUIRES(mutex_);
  Account* Largest() REQUIRES(mutex_);
  Verdict Cut(Account& account) REQUIRES(mutex_);
  void CloseLocked(Account& account) REQUIRES(mutex_);

  const Limits limits_;
  const Clock now_;
  mutable CStdMutex mutex_;
  std::condition_variable_any changed_;  // only the reader waits
  Level total_ GUARDED_BY(mutex_);
  std::set<Account*> accounts_ GUARDED_BY(mutex_);  // the open ones
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::atomic<std::uint64_t> write_waits_since_ms_{0};  // 0: no Write is on its way
  std::atomic<bool> wants_write_{false};                // the reader sleeps without knowing of a Write
};

#endif  // GX_PORTFWD_FLOW_CONTROL_H
