#include "stream/base_stream.h"

#include <algorithm>
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

struct CBaseStream::Direction {
  CTransfer CBaseStream::*transfer;
  unsigned no_buffer_code;
  const char* routine;  // these two name the place in the time-out's log line
  const char* line;
  bool (*fits)(const CItem& item);
  bool (*move)(CBaseStream& stream, const CItem& item, long& moved, long timeout_ms);
  void (*step)(CBaseStream& stream, const CItem& item, unsigned long moved);
  void (*done)(CBaseStream& stream, const CItem& item);

  static const Direction kReceive;
  static const Direction kSend;
};

const CBaseStream::Direction CBaseStream::Direction::kReceive = {
    .transfer = &CBaseStream::receive_,
    .no_buffer_code = kStreamSocketError,
    .routine = "RecvRout",
    .line = "315",
    .fits = [](const CItem& item) { return HasRoom(*item.buffer, item.remaining); },
    .move =
        [](CBaseStream& stream, const CItem& item, long& moved, long timeout_ms) {
          char* free_room = static_cast<char*>(item.buffer->GetPointer()) + item.buffer->GetSize();
          const long length = static_cast<long>(item.remaining);
          return item.peek ? stream.peek(free_room, length, moved, timeout_ms)
                           : stream.read(free_room, length, moved, timeout_ms);
        },
    .step =
        [](CBaseStream& stream, const CItem& item, unsigned long moved) {
          item.buffer->SetSize(item.buffer->GetSize() + moved);
          if (!item.peek) stream.read_step(item.buffer.get(), moved);
        },
    .done =
        [](CBaseStream& stream, const CItem& item) {
          if (item.peek) {
            stream.peek_done(item.buffer.get(), item.done);
          } else {
            stream.read_done(item.buffer.get(), item.done);
          }
        },
};

const CBaseStream::Direction CBaseStream::Direction::kSend = {
    .transfer = &CBaseStream::send_,
    .no_buffer_code = kStreamAgain,
    .routine = "SendRout",
    .line = "495",
    .fits = [](const CItem&) { return true; },
    .move =
        [](CBaseStream& stream, const CItem& item, long& moved, long timeout_ms) {
          const char* next = static_cast<const char*>(item.buffer->GetPointer()) + item.done;
          return stream.write(next, static_cast<long>(item.remaining), moved, timeout_ms, /*flags=*/0);
        },
    .step = [](CBaseStream& stream, const CItem& item,
               unsigned long moved) { stream.write_step(item.buffer.get(), moved); },
    .done = [](CBaseStream& stream, const CItem& item) { stream.write_done(item.buffer.get(), item.done); },
};

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
    items.push_back(MakeItem(list[i].buffer, list[i].length, timeout_ms));
  }
  Append(Direction::kSend, std::move(items));
  return SendRout(false);
}

unsigned long CBaseStream::Read_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return QueueRead(buffer, length, timeout_ms, /*peek=*/false);
}

unsigned long CBaseStream::Peek_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  return QueueRead(buffer, length, timeout_ms, /*peek=*/true);
}

unsigned long CBaseStream::Write_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) {
  if (!IsConnect()) return kNotConnected;
  Append(Direction::kSend, {MakeItem(buffer, length, timeout_ms)});
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
  SetReadFlag(false);
  return true;
}

bool CBaseStream::timeout(unsigned long now_ms) { return timeleft(now_ms) == 0; }

struct CBaseStream::Deadline {
  const char* missed;  // what the log says of it
  std::uint64_t since;
  std::uint64_t limit;
};

unsigned long CBaseStream::timeleft(unsigned long now_ms) {
  const Deadline deadline = NextDeadline();
  const std::uint64_t left = TimeLeft(deadline.since, deadline.limit, now_ms);
  if (left == 0)
    GXModLog(kGXModLogError, "%s, %lu", deadline.missed, static_cast<unsigned long>(deadline.limit));
  return left;
}

CBaseStream::Deadline CBaseStream::NextDeadline() const {
  CAutoLock lock(queue_lock_);
  if (!HadConnected_impl()) {
    return {"[basestream] connect server timeout", start_tick_ms_, connect_timeout_ms_};
  }
  const auto limited = [](const std::optional<CItem>& item) {
    return item && item->remaining != 0 && item->timeout_ms != kNoTimeout;
  };
  // A read goes first, even if the write's deadline is nearer.
  if (limited(receive_.current)) {
    return {"[basestream] read data timeout", receive_.current->queued_at_ms, receive_.current->timeout_ms};
  }
  if (limited(send_.current)) {
    return {"[basestream] write data timeout", send_.current->queued_at_ms, send_.current->timeout_ms};
  }
  return {"", 0, kNoTimeout};
}

unsigned long CBaseStream::RecvRout(bool from_reactor) { return Drain(Direction::kReceive, from_reactor); }

unsigned long CBaseStream::SendRout(bool from_reactor) { return Drain(Direction::kSend, from_reactor); }

void CBaseStream::SetConnectTimeout(unsigned long connect_ms, unsigned long transport_ms,
                                    unsigned long request_ms) {
  CAutoLock lock(queue_lock_);
  start_tick_ms_ = gettickcount();
  connect_timeout_ms_ = connect_ms;
  if (connect_ms != kNoTimeout) has_limits_.store(true, std::memory_order_relaxed);
  transport_timeout_ms_ = transport_ms;
  request_timeout_ms_ = request_ms;
}

CRefObj<IMemAlloctor> CBaseStream::SetMemAlloc(IMemAlloctor* allocator) {
  CRefObj<IMemAlloctor> previous(allocator);
  CAutoLock lock(queue_lock_);
  std::swap(previous, allocator_);
  return previous;
}

void CBaseStream::SetConnected(bool had_connected) {
  had_connected_.store(had_connected, std::memory_order_release);
  closed_.store(false, std::memory_order_release);
}

CBaseStream::CItem CBaseStream::MakeItem(IBuffer* buffer, unsigned long length, unsigned long timeout_ms,
                                         bool peek) {
  return {.done = 0,
          .remaining = length,
          .timeout_ms = timeout_ms,
          .queued_at_ms = 0,
          .peek = peek,
          .buffer = buffer};
}

unsigned long CBaseStream::QueueRead(IBuffer* buffer, unsigned long length, unsigned long timeout_ms,
                                     bool peek) {
  if (!IsConnect()) return kNotConnected;
  if (length == 0) return 0;
  const CRefObj<IBuffer> target = buffer != nullptr ? CRefObj<IBuffer>(buffer) : NewBuffer(length);
  if (!target) return 0;
  Append(Direction::kReceive, {MakeItem(target.get(), length, timeout_ms, peek)});
  return RecvRout(false);
}

CRefObj<IBuffer> CBaseStream::NewBuffer(unsigned long length) {
  IBuffer* counted = nullptr;
  if (!GetFreeBuffer(&counted, length)) return {};
  return CRefObj<IBuffer>::Attach(counted);
}

// Finding the queue empty and leaving are one step under this lock: whoever drains sees these requests, or the
// caller, who drains next, finds the entrance free.
void CBaseStream::Append(const Direction& way, std::list<CItem> items) {
  CAutoLock lock(queue_lock_);
  for (CItem& item : items) {
    if (request_timeout_ms_ != kNoTimeout) item.timeout_ms = request_timeout_ms_;
    if (item.timeout_ms != kNoTimeout) StartClock(item);
  }
  std::list<CItem>& queue = Transfer(way).queue;
  queue.splice(queue.end(), items);
}

void CBaseStream::StartClock(CItem& item) {
  item.queued_at_ms = gettickcount();
  has_limits_.store(true, std::memory_order_relaxed);
}

unsigned long CBaseStream::Drain(const Direction& way, bool from_reactor) {
  if (!IsConnect()) return kNotConnected;
  if (!Enter(way, from_reactor)) return 0;
  unsigned long total = 0;
  try {
    Advance(way, total);
  } catch (...) {
    // Bytes may have moved that nobody was told of. Going on would lose them without a word.
    GXModLog(kGXModLogError, "[basestream] a transfer ended with an exception, the stream is disconnected");
    Disconnect(kStreamOtherError);
    Leave(way);
  }
  return total;
}

void CBaseStream::Advance(const Direction& way, unsigned long& total) {
  while (const std::optional<CItem> item = Current(way)) {
    if (item->buffer && item->remaining == 0) {
      Complete(way, *item);
      continue;
    }
    long moved = 0;
    if (!Step(way, *item, moved)) return Leave(way);
    total += static_cast<unsigned long>(moved);
    if (moved == 0 && LeaveUnlessReady(way)) return;
  }
}

bool CBaseStream::Enter(const Direction& way, bool from_reactor) {
  CAutoLock lock(queue_lock_);
  CTransfer& transfer = Transfer(way);
  if (transfer.inside) {
    if (from_reactor) transfer.again = true;
    return false;
  }
  transfer.inside = true;
  return true;
}

std::optional<CBaseStream::CItem> CBaseStream::Current(const Direction& way) {
  CAutoLock lock(queue_lock_);
  CTransfer& transfer = Transfer(way);
  if (!transfer.current && !transfer.queue.empty()) {
    transfer.current = std::move(transfer.queue.front());
    transfer.queue.pop_front();
  }
  if (!transfer.current) transfer.inside = transfer.again = false;
  return transfer.current;
}

bool CBaseStream::Step(const Direction& way, const CItem& item, long& moved) {
  if (!IsConnect()) return false;  // a hook has disconnected: its handler shall hear of nothing more
  if (!item.buffer) return Fail(way.no_buffer_code);
  const std::uint64_t left =
      item.timeout_ms == kNoTimeout ? kNoTimeout : TimeLeft(item.queued_at_ms, item.timeout_ms, gettickcount());
  if (left == 0) {
    Disconnect(kStreamTimeout);
    GXModLog(kGXModLogInfo, "[tarn][erroCode] errorcode=%s(%u), product=%u, type=%u, inner code=%u [%s:%s]",
             "TARN_ERROR_KWSTREAM_TIMEOUT", kStreamTimeout, 0U, 3U, 4U, way.routine, way.line);
    return false;
  }
  if (!way.fits(item)) return Fail(kStreamAgain);
  if (!way.move(*this, item, moved, TransportTimeout(left))) {
    return Fail(IBaseStream::IStatusImpl::ErrnoToTarnErrorCode(static_cast<unsigned>(errno)));
  }
  if (moved == 0) return true;
  Account(way, moved);
  way.step(*this, item, static_cast<unsigned long>(moved));
  return true;
}

void CBaseStream::Account(const Direction& way, long moved) {
  CAutoLock lock(queue_lock_);
  CItem& item = *Transfer(way).current;
  item.done += static_cast<std::uint64_t>(moved);
  // A peek takes what there is.
  item.remaining = item.peek ? 0 : item.remaining - static_cast<std::uint64_t>(moved);
}

void CBaseStream::Complete(const Direction& way, const CItem& item) {
  {
    CAutoLock lock(queue_lock_);
    Transfer(way).current.reset();
  }
  way.done(*this, item);
}

bool CBaseStream::LeaveUnlessReady(const Direction& way) {
  CAutoLock lock(queue_lock_);
  CTransfer& transfer = Transfer(way);
  transfer.inside = std::exchange(transfer.again, false);
  return !transfer.inside;
}

void CBaseStream::Leave(const Direction& way) {
  CAutoLock lock(queue_lock_);
  CTransfer& transfer = Transfer(way);
  transfer.inside = transfer.again = false;
}

bool CBaseStream::Fail(unsigned code) {
  Disconnect(code);
  return false;
}

CBaseStream::CTransfer& CBaseStream::Transfer(const Direction& way) { return this->*way.transfer; }
