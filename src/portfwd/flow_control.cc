#include "portfwd/flow_control.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <utility>

void CFlowControl::Open(Account& account, std::uint32_t id) {
  CStdLock lock(mutex_);
  assert(!account.open_);
  accounts_.insert(&account);
  account.id_ = id;
  account.level_ = Level(limits_.connection_bytes);
  account.open_ = true;
}

void CFlowControl::Close(Account& account) {
  CStdLock lock(mutex_);
  CloseLocked(account);
}

CFlowControl::Filled CFlowControl::Queued(Account& account, std::uint64_t payload) {
  CStdLock lock(mutex_);
  if (!account.open_) return Filled::kNothing;
  const bool connection = Add(account.level_, payload + kBlockBytes);
  const bool total = Add(total_, payload + kBlockBytes);
  if (connection) return Filled::kConnection;
  return total ? Filled::kTotal : Filled::kNothing;
}

void CFlowControl::Took(Account& account) {
  CStdLock lock(mutex_);
  if (account.level_.waits || total_.waits) account.took_ms_ = now_();
}

void CFlowControl::Released(Account& account, std::uint64_t payload) {
  CStdLock lock(mutex_);
  if (!account.open_) return;
  Subtract(account.level_, payload + kBlockBytes);
  Subtract(total_, payload + kBlockBytes);
}

void CFlowControl::WriteWaits(std::uint64_t now_ms) {
  write_waits_since_ms_.store(now_ms);
  if (!wants_write_.load()) return;
  CStdLock lock(mutex_);  // the reader has just looked: taking the lock waits until it sleeps
  changed_.notify_one();
}

std::optional<std::uint32_t> CFlowControl::WaitForRoom(Account& account) {
  CStdLock lock(mutex_);
  for (;;) {
    const Verdict verdict = Judge(account);
    if (verdict.action != Verdict::kWait) wants_write_.store(false);
    if (verdict.action == Verdict::kGoOn) return std::nullopt;
    if (verdict.action == Verdict::kCut) return verdict.id;
    if (verdict.until_ms == kNever) {
      changed_.wait(mutex_);
    } else {
      const std::uint64_t now_ms = now_();
      changed_.wait_for(mutex_,
                        std::chrono::milliseconds(verdict.until_ms - std::min(now_ms, verdict.until_ms)));
    }
  }
}

void CFlowControl::Stop() {
  CStdLock lock(mutex_);
  stopped_ = true;
  changed_.notify_one();
}

CFlowControl::Verdict CFlowControl::Look(Account& account) {
  CStdLock lock(mutex_);
  return Judge(account);
}

std::uint64_t CFlowControl::Owed(const Account& account) const {
  CStdLock lock(mutex_);
  return account.level_.bytes;
}

// True when the level has just become full.
bool CFlowControl::Add(Level& level, std::uint64_t bytes) {
  level.bytes += bytes;
  if (level.bytes <= level.limit) return false;
  if (!level.waits) level.waits_since_ms = now_();
  level.waits = true;
  return !std::exchange(level.full, true);
}

void CFlowControl::Subtract(Level& level, std::uint64_t bytes) {
  assert(level.bytes >= bytes);
  level.bytes -= bytes;
  if (level.bytes <= level.limit / 2) level.full = false;
  if (!level.waits || level.bytes > level.limit - level.limit / 64) return;
  level.waits = false;
  changed_.notify_one();
}

CFlowControl::Verdict CFlowControl::Judge(Account& account) {
  if (stopped_ || (!account.level_.waits && !total_.waits)) return {Verdict::kGoOn};
  const std::uint64_t now_ms = now_();

  // Find the largest connection that blocks the reader and has taken nothing for stall_ms.
  std::uint64_t until_ms = kNever;
  Account* stalled = nullptr;
  for (Account* held : accounts_) {
    if (held->level_.bytes == 0 || (held != &account && !total_.waits)) continue;
    const std::uint64_t due_ms = StalledSince(*held) + limits_.stall_ms;
    if (due_ms > now_ms) {
      until_ms = std::min(until_ms, due_ms);
    } else if (stalled == nullptr || held->level_.bytes > stalled->level_.bytes) {
      stalled = held;
    }
  }
  if (stalled != nullptr) return Cut(*stalled);

  // A Write that starts while the reader sleeps wakes it. For a running Write, look again when it would count
  // as stuck.
  wants_write_.store(true);
  const std::uint64_t since_ms = write_waits_since_ms_.load();
  wants_write_.store(since_ms == 0);
  if (since_ms == 0) return {Verdict::kWait, until_ms};
  const bool far_over = account.level_.IsFarOver() || total_.IsFarOver();
  const std::uint64_t due_ms = since_ms + (far_over ? limits_.jam_ms : limits_.stuck_ms);
  if (due_ms > now_ms) return {Verdict::kWait, std::min(until_ms, due_ms)};
  if (!far_over) return {Verdict::kGoOn};
  return Cut(account.level_.IsFarOver() ? account : *Largest());
}

std::uint64_t CFlowControl::StalledSince(const Account& account) const {
  return std::max(account.took_ms_,
                  account.level_.waits ? account.level_.waits_since_ms : total_.waits_since_ms);
}

CFlowControl::Account* CFlowControl::Largest() {
  return *std::max_element(accounts_.begin(), accounts_.end(), [](const Account* one, const Account* other) {
    return one->level_.bytes < other->level_.bytes;
  });
}

CFlowControl::Verdict CFlowControl::Cut(Account& account) {
  CloseLocked(account);
  return {Verdict::kCut, 0, account.id_};
}

void CFlowControl::CloseLocked(Account& account) {
  if (!account.open_) return;
  account.open_ = false;
  accounts_.erase(&account);
  Subtract(total_, account.level_.bytes);
  account.level_ = Level();
  changed_.notify_one();
}
