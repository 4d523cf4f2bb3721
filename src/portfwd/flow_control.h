// Limits how far the reader of the plugin stream may run ahead of the local clients.
#ifndef GX_PORTFWD_FLOW_CONTROL_H
#define GX_PORTFWD_FLOW_CONTROL_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <set>

#include "base/clock.h"
#include "base/mutex_lock.h"

// The frame format has no window, so data that a client does not take piles up in memory. This object tracks
// how much each connection holds, when its client last took a byte, and since when the host's Write has taken
// none. Past a limit the reader waits here until a 64th of that memory is free. The wait is that short because
// all other connections wait with it.
//
// When Write is stuck, too, the far side may be waiting for the reader. Then the reader continues up to twice
// the limit and waits again there. A connection that blocks the reader for too long is cut.
//
// One per plugin stream. Threads: the reader calls WaitForRoom; any thread may call everything else. No other
// object is called with the lock held.
class CFlowControl {
 public:
  using Clock = std::uint64_t (*)();  // milliseconds

  struct Limits {
    std::uint64_t connection_bytes = 64 * 1024 * 1024;  // memory held for one connection
    std::uint64_t total_bytes = 256 * 1024 * 1024;      // memory held for all connections
    std::uint64_t stuck_ms = 3'000;   // Write takes no byte for so long: the far side has stopped reading
    std::uint64_t jam_ms = 5'000;     // the same, at twice the limit: a connection is cut
    std::uint64_t stall_ms = 60'000;  // a client takes no byte while the reader waits: it is cut
  };

  // Memory of a queued block besides its payload: queue entry, buffer object, allocator rounding.
  static constexpr std::uint64_t kBlockBytes = 256;

  // Memory held, against its limit.
  struct Level {
    explicit Level(std::uint64_t limit_bytes = 0) : limit(limit_bytes) {}
    bool IsFarOver() const { return bytes > 2 * limit; }

    std::uint64_t limit;
    std::uint64_t bytes = 0;
    bool waits = false;  // past the limit, until a 64th of it is free
    std::uint64_t waits_since_ms = 0;
    bool full = false;  // from past the limit down to half of it; reported once
  };

  // The memory held for one connection. A member of its handler, guarded by the lock of the flow control that
  // it is open in.
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
    std::uint64_t took_ms_ = 0;  // when the client last took a byte; updated while the reader waits
  };

  explicit CFlowControl(const Limits& limits, Clock now = &gettickcount)
      : limits_(limits), now_(now), total_(limits.total_bytes) {}

  // The account counts until Close, which must be called before it is destroyed.
  void Open(Account& account, std::uint32_t id);
  void Close(Account& account);

  enum class Filled { kNothing, kConnection, kTotal };
  // A block of `payload` bytes was queued for the client. Returns which limit was just passed.
  Filled Queued(Account& account, std::uint64_t payload);
  // Took: the client took part of a block. Released: the client took the rest of a block of `payload` bytes.
  void Took(Account& account);
  void Released(Account& account, std::uint64_t payload);

  // WriteWaits: the host's Write is called at `now_ms`, first for a frame or again for its rest. WriteEnds: the
  // last of these calls has returned.
  void WriteWaits(std::uint64_t now_ms);
  void WriteEnds() { write_waits_since_ms_.store(0); }

  // Blocks while `account`, or the total, is over its limit. Returns the id of a connection to disconnect,
  // whose account is closed already; call it again then. Returns nothing when the reader may continue.
  std::optional<std::uint32_t> WaitForRoom(Account& account);
  // All waits return at once from now on.
  void Stop();

  // One decision of WaitForRoom.
  struct Verdict {
    enum Action { kGoOn, kWait, kCut } action;
    std::uint64_t until_ms = 0;  // kWait: decide again then or after a change; kNever: only after a change
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
  std::set<Account*> accounts_ GUARDED_BY(mutex_);  // open accounts
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::atomic<std::uint64_t> write_waits_since_ms_{0};  // 0: no Write is running
  std::atomic<bool> wants_write_{false};                // the reader sleeps and must learn when a Write starts
};

#endif  // GX_PORTFWD_FLOW_CONTROL_H
