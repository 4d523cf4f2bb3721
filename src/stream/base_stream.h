// Everything about a stream that does not depend on its transport.
#ifndef GX_STREAM_BASE_STREAM_H
#define GX_STREAM_BASE_STREAM_H

#include <atomic>
#include <cstdint>
#include <list>

#include "base/mutex_lock.h"
#include "object/object_monitor.h"
#include "object/reference.h"
#include "stream/ibase_stream.h"

// Keeps the queues of requests, their time-outs, the connection's status, the allocator, the properties and the
// ownership token. A transport derives from it, supplies the five pure operations at the end, sets the status
// when it connects, and calls RecvRout and SendRout when it can move bytes again.
//
// Requests of one direction complete in the order in which they were queued, drained by one thread at a time;
// any thread may queue, and any thread's call may be the one that drains. No lock is held while the transport
// or the handler is called. Callers hold a reference until their call returns, even if the handler drops its
// own.
class CBaseStream : public IBaseStream,
                    private CReference,
                    public IPropertyList_Impl,
                    public IBaseStream::IUserDataImpl,
                    public IBaseStream::IHandlerImpl,
                    public IBaseStream::IIOOperatorImpl,
                    public IBaseStream::IStatusImpl,
                    public IThreadSaftyImpl {
 public:
  // The default allocator of every stream.
  static CRefObj<IMemAlloctor> s_bufAlloc;

  // `connected`: the transport is connected already.
  CBaseStream(StreamType type, bool connected);
  ~CBaseStream() override;
  GX_FORWARD_REFERENCE();

  IBaseStream::IUserDataImpl* UserDataImpl() override { return this; }
  IBaseStream::IHandlerImpl* HandlerImpl() override { return this; }
  IPropertyList_Impl* PropertyListImpl() override { return this; }
  IBaseStream::IIOOperatorImpl* IOOperatorImpl() override { return this; }
  IBaseStream::IStatusImpl* StatusImpl() override { return this; }
  IThreadSafty* ThreadSaftyImpl() override;

  bool AddProperty(::IReference* property) override;
  bool DelProperty(::IReference* property) override;
  bool DeleteAll() override;

  using IBaseStream::Write;

  // Replaces what ThreadSaftyImpl returns. Null changes nothing and returns false.
  virtual bool ChangeThreadSaftyImpl(IThreadSafty* safty);
  // Queues a copy of `length` bytes at `data`. Null and 0: the empty write. kNotConnected also without memory.
  virtual unsigned long Write(const void* data, unsigned long length, unsigned long timeout_ms);

  unsigned long Write_impl(_WRITE_BUF* list, unsigned long count, unsigned long timeout_ms) override;
  unsigned long Read_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) override;
  unsigned long Peek_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) override;
  unsigned long Write_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) override;
  void* SetUserData_impl(void* data) override;
  void* GetUserData_impl() const override;
  IBaseHandler* Handler_impl() const override;
  IBaseHandler* Handler_impl(IBaseHandler* handler) override;
  bool IsConnect_impl() const override;
  bool IsClosed_impl() const override;
  bool HadConnected_impl() const override;
  // True: `*out` is a buffer of `length` bytes, counted for the caller.
  virtual bool GetFreeBuffer(IBuffer** out, unsigned long length);
  StreamType GetStreamType_impl() const override { return type_; }
  // Marks the stream closed. The reason is for the transport, which overrides this to close its connection.
  bool Disconnect_impl(unsigned int reason) override;
  // Milliseconds to the next deadline at `now_ms` (monotonic); 0: it has passed; kNoTimeout: there is none.
  // While a read is pending only its deadline counts.
  virtual bool timeout(unsigned long now_ms);
  virtual unsigned long timeleft(unsigned long now_ms);
  // False: nothing was ever given a limit, so that there is no deadline, and no need to look at the clock.
  bool HasLimits() const { return has_limits_.load(std::memory_order_relaxed); }
  const char* GetStreamName_impl() const override { return ""; }
  const char* GetPeerName_impl() const override { return ""; }

  // Drain the queue of one direction as far as the transport goes. They return the bytes moved by this call, or
  // kNotConnected. `from_reactor`: the transport has become ready, so if another thread is draining it must
  // look once more. An exception out of the transport or the handler goes no further: it is logged and ends the
  // stream.
  virtual unsigned long RecvRout(bool from_reactor);
  virtual unsigned long SendRout(bool from_reactor);

  // All ones: no limit. The first bounds the time to connect, the second has no effect, the third replaces
  // the time-out of every later request. Restarts the clock of the first.
  void SetConnectTimeout(unsigned long connect_ms, unsigned long /*transport_ms*/, unsigned long request_ms);
  // Null leaves the stream without an allocator. Returns the previous one.
  CRefObj<IMemAlloctor> SetMemAlloc(IMemAlloctor* allocator);
  void SetReadFlag(bool /*on*/) {}  // does nothing

  // The contract for transports. `*count` is 0 when called. True with 0 bytes: the transport is busy and will
  // call RecvRout or SendRout with true when it is ready. False: failed or ended, errno tells why.
  virtual bool read(char* data, long length, long& count, long timeout_ms) = 0;
  virtual bool peek(char* data, long length, long& count, long timeout_ms) = 0;
  virtual bool write(const char* data, long length, long& count, long timeout_ms, long flags) = 0;
  // Hooks for the handler's notifications. Their results are the transport's own affair.
  virtual bool read_done(IBuffer* buffer, unsigned long length) = 0;
  virtual bool write_done(IBuffer* buffer, unsigned long length) = 0;
  virtual bool read_step(IBuffer* /*buffer*/, unsigned long /*length*/) { return true; }
  virtual bool peek_done(IBuffer* /*buffer*/, unsigned long /*length*/) { return true; }
  virtual bool write_step(IBuffer* /*buffer*/, unsigned long /*length*/) { return true; }
  // What the last read brought is to be told in one more step. False: not now, the transport will call RecvRout
  // with true.
  virtual bool may_step() { return true; }

 protected:
  // For the transport: the connection stands (again).
  void SetConnected(bool had_connected);
  void SetHadConnected() { had_connected_.store(true, std::memory_order_release); }
  // The empty write has had its turn: all that was written has left the stream, which therefore disconnects.
  bool HasEnded() const { return ended_.load(std::memory_order_relaxed); }

 private:
  enum Direction { kReceive, kSend };
  enum Kind { kRead, kPeek, kWrite };
  // The most that a step into the stream's own buffer brings. Steps end where the request has got a multiple of
  // it.
  static constexpr std::uint64_t kStepBytes = 4096;

  // One queued request.
  struct CItem {
    Kind kind = kRead;
    std::uint64_t done = 0;
    std::uint64_t remaining = 0;
    std::uint64_t timeout_ms = kNoTimeout;
    std::uint64_t queued_at_ms = 0;  // only with a limit
    CRefObj<IBuffer> buffer;
    std::uint64_t untold = 0;  // bytes that have been moved, but not been told to the handler
    bool own_buffer = false;   // the stream makes it when there is something to read, and these two count:
    std::uint64_t begin = 0;   // the filled size with which the allocator gave it
    std::uint64_t told = 0;    // where the bytes end that have been told
  };

  // What timeleft looks at.
  struct CDeadline {
    const char* missed = "";  // what the log says of it
    std::uint64_t since = 0;
    std::uint64_t limit = kNoTimeout;
  };

  // The requests of one direction, but for the current one.
  struct CTransfer {
    std::list<CItem> queue;
    CDeadline deadline;   // of the current request
    bool inside = false;  // some thread is draining
    bool again = false;   // the transport became ready meanwhile
  };

  static CDeadline DeadlineOf(const CItem& item);
  // A list of one.
  static std::list<CItem> MakeRequest(Kind kind, IBuffer* buffer, unsigned long length,
                                      unsigned long timeout_ms);

  unsigned long QueueRead(Kind kind, IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  CRefObj<IMemAlloctor> Allocator() const;
  CRefObj<IBuffer> NewBuffer(unsigned long length);
  void Append(Direction way, std::list<CItem> items);
  void StartClock(CItem& item);

  // How a step of the current request ended.
  enum Progress {
    kMoved,
    kBusy,       // the transport will tell when it is ready
    kNoRequest,  // there is none, or it has completed
    kClosed,     // the stream is
  };

  // The transfer routine, and what it calls: all but Enter only on the thread that is inside.
  unsigned long Drain(Direction way, bool from_reactor);
  // False: somebody is draining.
  bool Enter(Direction way, bool from_reactor);
  bool TakeNext(Direction way) REQUIRES(queue_lock_);  // false: there is none
  Progress Step(Direction way, unsigned long& total);
  Progress Move(CItem& item);
  void MakeBuffer(CItem& item);
  static void DropEmptyBuffer(CItem& item);
  static std::uint64_t RoomBegin(const CItem& item);
  static bool HasRoom(const CItem& item);
  bool CallTransport(const CItem& item, long& moved, long timeout_ms);
  void Account(Direction way, CItem& item, std::uint64_t bytes);
  void Complete(Direction way);
  Progress Fail(unsigned code);  // disconnects; always kClosed
  CDeadline NextDeadline() const;

  CPropertyList properties_;
  std::atomic<IThreadSafty*> thread_safty_;
  std::atomic<IBaseHandler*> handler_{nullptr};
  std::atomic<void*> user_data_{nullptr};
  std::atomic<bool> had_connected_;
  std::atomic<bool> closed_{false};
  std::atomic<bool> ended_{false};
  std::atomic<bool> has_limits_{false};
  const StreamType type_;

  mutable CStdMutex queue_lock_;
  CTransfer transfers_[2] GUARDED_BY(queue_lock_);  // by Direction
  CRefObj<IMemAlloctor> allocator_ GUARDED_BY(queue_lock_);
  std::uint64_t start_tick_ms_ GUARDED_BY(queue_lock_);
  std::uint64_t connect_timeout_ms_ GUARDED_BY(queue_lock_) = kNoTimeout;
  std::uint64_t request_timeout_ms_ GUARDED_BY(queue_lock_) = kNoTimeout;
  std::list<CItem> current_[2];  // by Direction: one request or none; only the thread that is inside touches it
  OBJECT_MONITOR<CBaseStream> monitor_;
};

#endif  // GX_STREAM_BASE_STREAM_H
