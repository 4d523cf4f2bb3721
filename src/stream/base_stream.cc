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

// Milliseconds left of a limit that started at `since`; kNoTimeout: no limit.
std::uint64_t TimeLeft(std::uint64_t since, std::uint64_t limit, std::uint64_t now) {
  if (limit == kNoTimeout) return kNoTimeout;
  const std::uint64_t end = limit < kNoTimeout - since ? since + limit : kNoTimeout;
  return end > now ? end - now : 0;
}

// The form for transports: -1 means no limit.
long TransportTimeout(std::uint64_t left) {
  constexpr std::uint64_t kLongest = std::numeric_limits<long>::max();
  return left == kNoTimeout ? -1 : static_cast<long>(std::min(left, kLongest));
}

}  // namespace

CBaseStream::CBaseStream(StreamType type, bool connected)
    : thread_safty_(this),
      had_connected_(connected),
      type_(type),
      allocator_(s_bufAlloc),
      start_tick_ms_(gettickcount()) {}

// Release the properties first: their destructors may still call the stream.
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
  // An allocator with a maximum size may have returned a smaller buffer.
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

CRefObj<IMemAlloctor> CBaseStream::Allocator() const {
  CStdLock lock(queue_lock_);
  return allocator_;
}

bool CBaseStream::GetFreeBuffer(IBuffer** out, unsigned long length) {
  const CRefObj<IMemAlloctor> allocator = Allocator();
  if (out == nullptr || !allocator) return false;
  CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(length);
  if (!buffer) return false;
  *out = buffer.Detach();
  return true;
}

bool CBaseStream::Disconnect_impl(unsigned int /*reason*/) {
  if (closed_.exchange(true, std::memory_order_acq_rel)) return false;
  std::list<CItem> dropped[2];  // destroyed after the lock is released; a task may hold the stream for long
  CStdLock lock(queue_lock_);
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
  CStdLock lock(queue_lock_);
  if (!HadConnected_impl()) {
    return {"[basestream] connect server timeout", start_tick_ms_, connect_timeout_ms_};
  }
  // A pending read's deadline counts first, even if the write's is nearer.
  const CDeadline& read = transfers_[kReceive].deadline;
  return read.limit != kNoTimeout ? read : transfers_[kSend].deadline;
}

unsigned long CBaseStream::RecvRout(bool from_reactor) { return Drain(kReceive, from_reactor); }

unsigned long CBaseStream::SendRout(bool from_reactor) { return Drain(kSend, from_reactor); }

void CBaseStream::SetConnectTimeout(unsigned long connect_ms, unsigned long /*transport_ms*/,
                                    unsigned long request_ms) {
  CStdLock lock(queue_lock_);
  start_tick_ms_ = gettickcount();
  connect_timeout_ms_ = connect_ms;
  if (connect_ms != kNoTimeout) has_limits_.store(true, std::memory_order_relaxed);
  request_timeout_ms_ = request_ms;
}

CRefObj<IMemAlloctor> CBaseStream::SetMemAlloc(IMemAlloctor* allocator) {
  CRefObj<IMemAlloctor> previous(allocator);
  CStdLock lock(queue_lock_);
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
  CItem& item = request.emplace_back();
  item.kind = kind;
  item.remaining = length;
  item.timeout_ms = timeout_ms;
  item.buffer = buffer;
  item.own_buffer = buffer == nullptr && kind != kWrite;
  return request;
}

unsigned long CBaseStream::QueueRead(Kind kind, IBuffer* buffer, unsigned long length,
                                     unsigned long timeout_ms) {
  if (!IsConnect()) return kNotConnected;
  if (length == 0) return 0;
  if (buffer == nullptr && !Allocator()) return 0;
  Append(kReceive, MakeRequest(kind, buffer, length, timeout_ms));
  return RecvRout(false);
}

CRefObj<IBuffer> CBaseStream::NewBuffer(unsigned long length) {
  IBuffer* counted = nullptr;
  if (!GetFreeBuffer(&counted, length)) return {};
  return CRefObj<IBuffer>::Attach(counted);
}

void CBaseStream::Append(Direction way, std::list<CItem> items) {
  CStdLock lock(queue_lock_);
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
      // Bytes may have been moved without being reported: continuing would lose them silently.
      GXModLog(kGXModLogError, "[basestream] a transfer ended with an exception, the stream is disconnected");
      progress = Fail(kStreamOtherError);
    }
    if (progress == kMoved) continue;
    if (progress == kBusy) DropEmptyBuffer(current_[way].front());

    // Clearing `inside` and checking that the queue is empty happen under one lock. So a new request or a
    // transport that became ready is either seen here, or its thread can enter.
    CStdLock lock(queue_lock_);
    CTransfer& transfer = transfers_[way];
    assert(transfer.inside);
    if (progress == kBusy && std::exchange(transfer.again, false)) continue;
    if (progress == kNoRequest && TakeNext(way)) continue;
    transfer.inside = transfer.again = false;
    return total;
  }
}

bool CBaseStream::Enter(Direction way, bool from_reactor) {
  CStdLock lock(queue_lock_);
  CTransfer& transfer = transfers_[way];
  if (transfer.inside) {
    if (from_reactor) transfer.again = true;
    return false;
  }
  transfer.inside = true;
  if (current_[way].empty()) TakeNext(way);
  return true;
}

bool CBaseStream::TakeNext(Direction way) {
  CTransfer& transfer = transfers_[way];
  if (transfer.queue.empty()) return false;
  current_[way].splice(current_[way].begin(), transfer.queue, transfer.queue.begin());
  transfer.deadline = DeadlineOf(current_[way].front());
  return true;
}

CBaseStream::Progress CBaseStream::Step(Direction way, unsigned long& total) {
  if (current_[way].empty()) return kNoRequest;
  CItem& item = current_[way].front();
  if (item.buffer && item.remaining == 0) {
    Complete(way);
    return kNoRequest;
  }
  // A hook may have disconnected the stream: the handler must get no further notifications.
  if (!CBaseStream::IsConnect_impl()) return kClosed;
  if (item.untold == 0) {
    const Progress progress = Move(item);
    if (progress != kMoved) return progress;
  } else if (!may_step()) {
    return kBusy;
  }
  const bool in_steps = item.own_buffer && item.kind == kRead;
  const std::uint64_t step =
      in_steps ? std::min(item.untold, kStepBytes - item.done % kStepBytes) : item.untold;
  Account(way, item, step);
  total += step;
  return kMoved;
}

CBaseStream::Progress CBaseStream::Move(CItem& item) {
  const bool writes = item.kind == kWrite;
  if (item.own_buffer) PrepareBuffer(item);
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
  if (!writes && !HasRoom(item)) return Fail(kStreamNoRoom);
  long moved = 0;
  if (!CallTransport(item, moved, TransportTimeout(left))) {
    return Fail(IBaseStream::IStatusImpl::ErrnoToTarnErrorCode(static_cast<unsigned>(errno)));
  }
  assert(moved >= 0 && static_cast<std::uint64_t>(moved) <= item.remaining);
  item.untold = static_cast<std::uint64_t>(moved);
  return moved != 0 ? kMoved : kBusy;
}

// A buffer that the handler has emptied is filled from its begin again.
void CBaseStream::PrepareBuffer(CItem& item) {
  if (!item.buffer) {
    item.buffer = NewBuffer(item.done + item.remaining);
    if (item.buffer) item.begin = item.buffer->GetSize();
  }
  if (!item.buffer) {
    GXModLog(kGXModLogError, "[basestream] no memory to read, the stream is disconnected");
  } else if (item.buffer->GetSize() == item.begin) {
    item.told = item.begin;
  }
}

// A stream may wait for a long time, so it frees its empty buffer meanwhile.
void CBaseStream::DropEmptyBuffer(CItem& item) {
  if (item.own_buffer && item.buffer && item.untold == 0 && item.buffer->GetSize() == item.begin)
    item.buffer = {};
}

// The position of the next byte of a read: after the filled ones; the handler may have emptied the stream's own
// buffer.
std::uint64_t CBaseStream::RoomBegin(const CItem& item) {
  return item.own_buffer ? item.told : item.buffer->GetSize();
}

std::uint64_t CBaseStream::Room(const CItem& item) {
  const std::uint64_t capacity = item.buffer->GetBufferSize();
  return capacity - std::min(capacity, RoomBegin(item));
}

// The stream's own buffer may be smaller than the request: its handler empties it, if it can.
bool CBaseStream::HasRoom(const CItem& item) {
  return item.own_buffer ? Room(item) != 0 : Room(item) >= item.remaining;
}

bool CBaseStream::CallTransport(const CItem& item, long& moved, long timeout_ms) {
  char* const bytes = static_cast<char*>(item.buffer->GetPointer());
  if (item.kind == kWrite) {
    return write(bytes + item.done, static_cast<long>(item.remaining), moved, timeout_ms, /*flags=*/0);
  }
  std::uint64_t most = std::min(item.remaining, Room(item));
  // End a long read where a step ends. Otherwise each later read would begin and end with a short step.
  if (item.own_buffer && most > kStepBytes) most -= (item.done + most) % kStepBytes;
  const auto length = static_cast<long>(most);
  char* const room = bytes + RoomBegin(item);
  return item.kind == kPeek ? peek(room, length, moved, timeout_ms) : read(room, length, moved, timeout_ms);
}

void CBaseStream::Account(Direction way, CItem& item, std::uint64_t bytes) {
  item.untold -= bytes;
  item.done += bytes;
  item.remaining = item.kind == kPeek ? 0 : item.remaining - bytes;  // a peek reads only once
  if (item.remaining == 0 && item.timeout_ms != kNoTimeout) {
    CStdLock lock(queue_lock_);
    transfers_[way].deadline = {};
  }
  if (item.kind != kWrite) {
    item.told = RoomBegin(item) + bytes;
    item.buffer->SetSize(item.told);
  }
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
