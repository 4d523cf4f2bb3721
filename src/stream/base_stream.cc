#include "stream/base_stream.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "base/clock.h"
#include "runtime/gxmod_runtime.h"
#include "stream/mem_buffer.h"

GX_MONITOR_CLASS(2, CBaseStream);

CRefObj<IMemAlloctor> CBaseStream::s_bufAlloc(new (std::nothrow) CMemAlloctorEx<CMemBuffer>());

namespace {

// Milliseconds left of a limit that began at `since`; kNoTimeout: there is no limit.
std::uint64_t TimeLeft(std::uint64_t since, std::uint64_t limit, std::uint64_t now) {
  if (limit == kNoTimeout) return kNoTimeout;
  const std::uint64_t end = limit < kNoTimeout - since ? since + limit : kNoTimeout;
  return end > now ? end - now : 0;
}

// As transports take it: -1 is no limit.
long TransportTimeout(std::uint64_t left) {
  constexpr std::uint64_t kLongest = std::numeric_limits<long>::max();
  return left == kNoTimeout ? -1 : static_cast<long>(std::min(left, kLongest));
}

bool HasRoom(const IBuffer& buffer, std::uint64_t length) {
  const std::size_t capacity = buffer.GetBufferSize();
  const std::size_t filled = buffer.GetSize();
  return filled <= capacity && capacity - filled >= length;
}

}  // namespace

CBaseStream::CBaseStream(StreamType type, bool connected)
    : thread_safty_(this),
      had_connected_(connected),
      type_(type),
      allocator_(s_bufAlloc),
      start_tick_ms_(gettickcount()) {}

// The properties go first: their destructors may still ask the stream.
CBaseStream::~CBaseStream() { properties_.Clear(); }

IThreadSafty* CBaseStream::ThreadSaftyImpl() { return thread_safty_.load(std::memory_order_acquire); }

bool CBaseStream::AddProperty(::IReference* property) { return properties_.Add(property); }

bool CBaseStream::DelProperty(::IReference* property) { return properties_.Remove(property); }

bool CBaseStream::DeleteAll() {
  properties_.Clear();
  return true;
}

bool CBaseStream::ChangeThreadSaftyImpl(IThreadSafty* safty) {
  if (safty == nullptr) return false;
  thread_safty_.store(safty, std::memory_order_release);
  return true;
}

unsigned long CBaseStream::Write(const void* data, unsigned long length, unsigned long timeout_ms) {
  if (data == nullptr) return length == 0 ? WriteEnd() : kNotConnected;
  const CRefObj<IBuffer> copy = NewBuffer(length);
  // An allocator with a maximum may have given less.
  if (!copy || copy->SetSize(length) != length) return kNotConnected;
  if (length != 0) std::memcpy(copy->GetPointer(), data, length);
  return Write_impl(copy.get(), length, timeout_ms);
}

unsigned long CBaseStream::Write_impl(_WRITE_BUF* list, unsigned long count, unsigned long timeout_ms) {
  if (!IsConnect()) return kNotConnected;
  std::list<CItem> items;
  for (unsigned long i = 0; i < count; ++i) {
    items.splice(items.end(), MakeRequest(kWrite, list[i].buffer, list[i].length, timeout_ms));
  }
  Append(kSend, std::move(items));
  return SendRout(false);
}

unsigned long CBaseStream::Read_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return QueueRead(kRead, buffer, length, timeout_ms);
}

unsigned long CBaseStream::Peek_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return QueueRead(kPeek, buffer, length, timeout_ms);
}

unsigned long CBaseStream::Write_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  if (!IsConnect()) return kNotConnected;
  Append(kSend, MakeRequest(kWrite, buffer, length, timeout_ms));
  return SendRout(false);
}

void* CBaseStream::SetUserData_impl(void* data) { return user_data_.exchange(data, std::memory_order_acq_rel); }

void* CBaseStream::GetUserData_impl() const { return user_data_.load(std::memory_order_acquire); }

IBaseStream::IBaseHandler* CBaseStream::Handler_impl() const {
  return handler_.load(std::memory_order_acquire);
}

IBaseStream::IBaseHandler* CBaseStream::Handler_impl(IBaseHandler* handler) {
  return handler_.exchange(handler, std::memory_order_acq_rel);
}

bool CBaseStream::IsConnect_impl() const { return HadConnected_impl() && !IsClosed_impl(); }

bool CBaseStream::IsClosed_impl() const { return closed_.load(std::memory_order_acquire); }

bool CBaseStream::HadConnected_impl() const { return had_connected_.load(std::memory_order_acquire); }

bool CBaseStream::GetFreeBuffer(IBuffer** out, unsigned long length) {
  CRefObj<IMemAlloctor> allocator;
  {
    CAutoLock lock(queue_lock_);
    allocator = allocator_;
  }
  if (out == nullptr || !allocator) return false;
  CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(length);
  if (!buffer) return false;
  *out = buffer.Detach();
  return true;
}

bool CBaseStream::Disconnect_impl(unsigned int /*reason*/) {
  if (closed_.exchange(true, std::memory_order_acq_rel)) return false;
  std::list<CItem> dropped[2];  // outlive the lock; a task may hold the stream itself for long
  CAutoLock lock(queue_lock_);
  for (const Direction way : {kReceive, kSend}) dropped[way].swap(transfers_[way].queue);
  return true;
}

bool CBaseStream::timeout(unsigned long now_ms) { return timeleft(now_ms) == 0; }

unsigned long CBaseStream::timeleft(unsigned long now_ms) {
  const CDeadline deadline = NextDeadline();
  const std::uint64_t left = TimeLeft(deadline.since, deadline.limit, now_ms);
  if (left == 0)
    GXModLog(kGXModLogError, "%s, %lu", deadline.missed, static_cast<unsigned long>(deadline.limit));
  return left;
}

CBaseStream::CDeadline CBaseStream::NextDeadline() const {
  CAutoLock lock(queue_lock_);
  if (!HadConnected_impl()) {
    return {"[basestream] connect server timeout", start_tick_ms_, connect_timeout_ms_};
  }
  // A read goes first, even if the write's deadline is nearer.
  const CDeadline& read = transfers_[kReceive].deadline;
  return read.limit != kNoTimeout ? read : transfers_[kSend].deadline;
}

unsigned long CBaseStream::RecvRout(bool from_reactor) { return Drain(kReceive, from_reactor); }

unsigned long CBaseStream::SendRout(bool from_reactor) { return Drain(kSend, from_reactor); }

void CBaseStream::SetConnectTimeout(unsigned long connect_ms, unsigned long /*transport_ms*/,
                                    unsigned long request_ms) {
  CAutoLock lock(queue_lock_);
  start_tick_ms_ = gettickcount();
  connect_timeout_ms_ = connect_ms;
  if (connect_ms != kNoTimeout) has_limits_.store(true, std::memory_order_relaxed);
  request_timeout_ms_ = request_ms;
}

CRefObj<IMemAlloctor> CBaseStream::SetMemAlloc(IMemAlloctor* allocator) {
  CRefObj<IMemAlloctor> previous(allocator);
  CAutoLock lock(queue_lock_);
  std::swap(previous, allocator_);
  return previous;
}

void CBaseStream::SetConnected(bool had_connected) {
  ended_.store(false, std::memory_order_relaxed);
  had_connected_.store(had_connected, std::memory_order_release);
  closed_.store(false, std::memory_order_release);
}

std::list<CBaseStream::CItem> CBaseStream::MakeRequest(Kind kind, IBuffer* buffer, unsigned long length,
                                                       unsigned long timeout_ms) {
  std::list<CItem> request;
  request.push_back({.kind = kind,
                     .done = 0,
                     .remaining = length,
                     .timeout_ms = timeout_ms,
                     .queued_at_ms = 0,
                     .buffer = buffer});
  return request;
}

unsigned long CBaseStream::QueueRead(Kind kind, IBuffer* buffer, unsigned long length,
                                     unsigned long timeout_ms) {
  if (!IsConnect()) return kNotConnected;
  if (length == 0) return 0;
  const CRefObj<IBuffer> target = buffer != nullptr ? CRefObj<IBuffer>(buffer) : NewBuffer(length);
  if (!target) return 0;
  Append(kReceive, MakeRequest(kind, target.get(), length, timeout_ms));
  return RecvRout(false);
}

CRefObj<IBuffer> CBaseStream::NewBuffer(unsigned long length) {
  IBuffer* counted = nullptr;
  if (!GetFreeBuffer(&counted, length)) return {};
  return CRefObj<IBuffer>::Attach(counted);
}

void CBaseStream::Append(Direction way, std::list<CItem> items) {
  CAutoLock lock(queue_lock_);
  for (CItem& item : items) {
    if (request_timeout_ms_ != kNoTimeout) item.timeout_ms = request_timeout_ms_;
    if (item.timeout_ms != kNoTimeout) StartClock(item);
  }
  std::list<CItem>& queue = transfers_[way].queue;
  queue.splice(queue.end(), items);
}

void CBaseStream::StartClock(CItem& item) {
  item.queued_at_ms = gettickcount();
  has_limits_.store(true, std::memory_order_relaxed);
}

unsigned long CBaseStream::Drain(Direction way, bool from_reactor) {
  if (!IsConnect()) return kNotConnected;
  if (!Enter(way, from_reactor)) return 0;
  unsigned long total = 0;
  for (;;) {
    Progress progress;
    try {
      progress = Step(way, total);
    } catch (...) {
      // Bytes may have moved that nobody was told of. Going on would lose them without a word.
      GXModLog(kGXModLogError, "[basestream] a transfer ended with an exception, the stream is disconnected");
      progress = Fail(kStreamOtherError);
    }
    if (progress == kMoved) continue;

    // Seeing that there is nothing to do and leaving are one step under this lock. Whoever appends a request,
    // or has become ready, is either seen here or finds the entrance free.
    CAutoLock lock(queue_lock_);
    CTransfer& transfer = transfers_[way];
    assert(transfer.inside);
    if (progress == kBusy && std::exchange(transfer.again, false)) continue;
    if (progress == kNoRequest && !transfer.queue.empty()) {
      current_[way].splice(current_[way].begin(), transfer.queue, transfer.queue.begin());
      transfer.deadline = DeadlineOf(current_[way].front());
      continue;
    }
    transfer.inside = transfer.again = false;
    return total;
  }
}

bool CBaseStream::Enter(Direction way, bool from_reactor) {
  CAutoLock lock(queue_lock_);
  CTransfer& transfer = transfers_[way];
  if (transfer.inside) {
    if (from_reactor) transfer.again = true;
    return false;
  }
  transfer.inside = true;
  return true;
}

CBaseStream::Progress CBaseStream::Step(Direction way, unsigned long& total) {
  if (current_[way].empty()) return kNoRequest;
  CItem& item = current_[way].front();
  if (item.buffer && item.remaining == 0) {
    Complete(way);
    return kNoRequest;
  }
  long moved = 0;
  const Progress progress = Move(item, moved);
  if (progress != kMoved) return progress;
  Account(way, item, moved);
  total += static_cast<unsigned long>(moved);
  return kMoved;
}

CBaseStream::Progress CBaseStream::Move(const CItem& item, long& moved) {
  if (!IsConnect()) return kClosed;  // a hook has disconnected: its handler shall hear of nothing more
  const bool writes = item.kind == kWrite;
  if (!item.buffer) {
    if (writes) ended_.store(true, std::memory_order_relaxed);
    return Fail(writes ? kStreamEnd : kStreamSocketError);
  }
  const std::uint64_t left =
      item.timeout_ms == kNoTimeout ? kNoTimeout : TimeLeft(item.queued_at_ms, item.timeout_ms, gettickcount());
  if (left == 0) {
    Disconnect(kStreamTimeout);
    GXModLog(kGXModLogInfo, "[tarn][erroCode] errorcode=%s(%u), product=%u, type=%u, inner code=%u [%s:%s]",
             "TARN_ERROR_KWSTREAM_TIMEOUT", kStreamTimeout, 0U, 3U, 4U, writes ? "SendRout" : "RecvRout",
             writes ? "495" : "315");
    return kClosed;
  }
  if (!writes && !HasRoom(*item.buffer, item.remaining)) return Fail(kStreamNoRoom);
  if (!CallTransport(item, moved, TransportTimeout(left))) {
    return Fail(IBaseStream::IStatusImpl::ErrnoToTarnErrorCode(static_cast<unsigned>(errno)));
  }
  assert(moved >= 0 && static_cast<std::uint64_t>(moved) <= item.remaining);
  return moved != 0 ? kMoved : kBusy;
}

bool CBaseStream::CallTransport(const CItem& item, long& moved, long timeout_ms) {
  char* const bytes = static_cast<char*>(item.buffer->GetPointer());
  const long length = static_cast<long>(item.remaining);
  if (item.kind == kWrite) return write(bytes + item.done, length, moved, timeout_ms, /*flags=*/0);
  char* const room = bytes + item.buffer->GetSize();
  return item.kind == kPeek ? peek(room, length, moved, timeout_ms) : read(room, length, moved, timeout_ms);
}

void CBaseStream::Account(Direction way, CItem& item, long moved) {
  const auto bytes = static_cast<std::uint64_t>(moved);
  item.done += bytes;
  item.remaining = item.kind == kPeek ? 0 : item.remaining - bytes;  // a peek takes what there is
  if (item.remaining == 0 && item.timeout_ms != kNoTimeout) {
    CAutoLock lock(queue_lock_);
    transfers_[way].deadline = {};
  }
  if (item.kind != kWrite) item.buffer->SetSize(item.buffer->GetSize() + bytes);
  if (item.kind == kWrite) write_step(item.buffer.get(), bytes);
  if (item.kind == kRead) read_step(item.buffer.get(), bytes);
}

void CBaseStream::Complete(Direction way) {
  const std::list<CItem> completed = std::exchange(current_[way], {});
  const CItem& item = completed.front();
  if (item.kind == kRead) read_done(item.buffer.get(), item.done);
  if (item.kind == kPeek) peek_done(item.buffer.get(), item.done);
  if (item.kind == kWrite) write_done(item.buffer.get(), item.done);
}

CBaseStream::Progress CBaseStream::Fail(unsigned code) {
  Disconnect(code);
  return kClosed;
}

CBaseStream::CDeadline CBaseStream::DeadlineOf(const CItem& item) {
  if (item.remaining == 0 || item.timeout_ms == kNoTimeout) return {};
  return {item.kind == kWrite ? "[basestream] write data timeout" : "[basestream] read data timeout",
          item.queued_at_ms, item.timeout_ms};
}
