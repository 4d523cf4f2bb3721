// The part of a stream that is independent of its transport.
#ifndef GX_STREAM_BASE_STREAM_H
#define GX_STREAM_BASE_STREAM_H

#include <atomic>
#include <cstdint>
#include <list>

#include "base/mutex_lock.h"
#include "object/creference.h"
#include "object/object_monitor.h"
#include "stream/ibase_stream.h"

// Holds the queued requests, their time limits, the connection's status, the allocator, the properties and the
// ownership token. A transport derives from it, implements the five pure virtual functions at the end, sets the
// status when it connects, and calls RecvRout and SendRout when it can move bytes again.
//
// The requests of one direction complete in the order in which they were queued, and one thread at a time runs
// them. Any thread may queue a request, and may become the one that runs the queue. No lock is held while the
// transport or the handler is called. Callers hold a reference until their call returns, even if the handler
// drops its own.
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

  // `connected`: the transport is already connected.
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

  // Replaces the result of ThreadSaftyImpl. Null changes nothing and returns false.
  virtual bool ChangeThreadSaftyImpl(IThreadSafty* safty);
  // Queues a copy of `length` bytes at `data`. Null and 0 queue the empty write. Also kNotConnected when memory
  // runs out.
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
  // Returns true with a buffer of `length` bytes in `*out`, as a new reference for the caller.
  virtual bool GetFreeBuffer(IBuffer** out, unsigned long length);
  StreamType GetStreamType_impl() const override { return type_; }
  // Marks the stream closed. A transport overrides this to close its connection; the reason is for it.
  bool Disconnect_impl(unsigned int reason) override;
  // Milliseconds to the next deadline at `now_ms` (monotonic); 0: it has passed; kNoTimeout: there is none.
  // While a read is pending, only its deadline counts.
  virtual bool timeout(unsigned long now_ms);
  virtual unsigned long timeleft(unsigned long now_ms);
  // False while no time limit was ever set: there is no deadline, and the clock need not be read.
  bool HasLimits() const { return has_limits_.load(std::memory_order_relaxed); }
  const char* GetStreamName_impl() const override { return ""; }
  const char* GetPeerName_impl() const override { return ""; }

  // Run the queue of one direction as far as the transport allows. They return the bytes moved by this call, or
  // kNotConnected. `from_reactor`: the transport has become ready, so another thread that runs the queue must
  // try once more. An exception from the transport or the handler is logged and ends the stream.
  virtual unsigned long RecvRout(bool from_reactor);
  virtual unsigned long SendRout(bool from_reactor);

  // Time limits in milliseconds; all ones means no limit. The first limits the time to connect, counted from
  // this call; the second has no effect; the third replaces the limit of every later request.
  void SetConnectTimeout(unsigned long connect_ms, unsigned long /*transport_ms*/, unsigned long request_ms);
  // Null removes the allocator. Returns the previous one.
  CRefObj<IMemAlloctor> SetMemAlloc(IMemAlloctor* allocator);
  void SetReadFlag(bool /*on*/) {}  // does nothing

  // The interface of transports. `*count` is 0 on entry. True with 0 bytes: the transport is busy and will call
  // RecvRout or SendRout with true when it is ready. False: it failed or ended; errno tells why.
  virtual bool read(char* data, long length, long& count, long timeout_ms) = 0;
  virtual bool peek(char* data, long length, long& count, long timeout_ms) = 0;
  virtual bool write(const char* data, long length, long& count, long timeout_ms, long flags) = 0;
  // Hooks that notify the handler. Only the transport uses their results.
  virtual bool read_done(IBuffer* buffer, unsigned long length) = 0;
  virtual bool write_done(IBuffer* buffer, unsigned long length) = 0;
  virtual bool read_step(IBuffer* /*buffer*/, unsigned long /*length*/) { return true; }
  virtual bool peek_done(IBuffer* /*buffer*/, unsigned long /*length*/) { return true; }
  virtual bool write_step(IBuffer* /*buffer*/, unsigned long /*length*/) { return true; }
  // Whether the next step of already read data may be reported now. On false the transport calls RecvRout with
  // true later.
  virtual bool may_step() { return true; }

 protected:
  // For the transport: it is connected (again).
  void SetConnected(bool had_connected);
  void SetHadConnected() { had_connected_.store(true, std::memory_order_release); }
  // True after the empty write: all written data has left the stream, which therefore disconnects.
  bool HasEnded() const { return ended_.load(std::memory_order_relaxed); }

 private:
  enum Direction { kReceive, kSend };
  enum Kind { kRead, kPeek, kWrite };
  // The maximum size of a step into the stream's own buffer. Steps end at multiples of it within the request.
  static constexpr std::uint64_t kStepBytes = 4096;

  // One queued request.
  struct CItem {
    Kind kind = kRead;
    std::uint64_t done = 0;
    std::uint64_t remaining = 0;
    std::uint64_t timeout_ms = kNoTimeout;
    std::uint64_t queued_at_ms = 0;  // set only with a time limit
    CRefObj<IBuffer> buffer;
    std::uint64_t untold = 0;  // bytes that were moved but not yet reported to the handler
    bool own_buffer = false;   // created by the stream when there is data to read; begin and told apply
    std::uint64_t begin = 0;   // the filled size that the allocator had set
    std::uint64_t told = 0;    // end of the reported bytes
  };

  // The deadline from which timeleft computes its result.
  struct CDeadline {
    const char* missed = "";  // the log's text for it
    std::uint64_t since = 0;
    std::uint64_t limit = kNoTimeout;
  };

  // The requests of one direction, except for the current one.
  struct CTransfer {
    std::list<CItem> queue;
    CDeadline deadline;   // of the current request
    bool inside = false;  // a thread is running the queue
    bool again = false;   // the transport became ready meanwhile
  };

  static CDeadline DeadlineOf(const CItem& item);
  // Returns a list of one request.
  static std::list<CItem> MakeRequest(Kind kind, IBuffer* buffer, unsigned long length,
                                      unsigned long timeout_ms);

  unsigned long QueueRead(Kind kind, IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  CRefObj<IMemAlloctor> Allocator() const;
  CRefObj<IBuffer> NewBuffer(unsigned long length);
  void Append(Direction way, std::list<CItem> items);
  void StartClock(CItem& item);

  // The result of a step of the current request.
  enum Progress {
    kMoved,
    kBusy,       // the transport will report when it is ready
    kNoRequest,  // the queue is empty, or the request has completed
    kClosed,     // the stream is closed
  };

  // The transfer function and its helpers: all except Enter run only on the thread that runs the queue.
  unsigned long Drain(Direction way, bool from_reactor);
  // Returns false when another thread is running the queue.
  bool Enter(Direction way, bool from_reactor);
  bool TakeNext(Direction way) REQUIRES(queue_lock_);  // false: the queue is empty
  Progress Step(Direction way, unsigned long& total);
  Progress Move(CItem& item);
  void PrepareBuffer(CItem& item);
  static void DropEmptyBuffer(CItem& item);
  static std::uint64_t RoomBegin(const CItem& item);
  static std::uint64_t Room(const CItem& item);
  static bool HasRoom(const CItem& item);
  bool CallTransport(const CItem& item, long& moved, long timeout_ms);
  void Account(Direction way, CItem& item, std::uint64_t bytes);
  void Complete(Direction way);
  Progress Fail(unsigned code);  // disconnects; always returns kClosed
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
  CTransfer transfers_[2] GUARDED_BY(queue_lock_);  // index: Direction
  CRefObj<IMemAlloctor> allocator_ GUARDED_BY(queue_lock_);
  std::uint64_t start_tick_ms_ GUARDED_BY(queue_lock_);
  std::uint64_t connect_timeout_ms_ GUARDED_BY(queue_lock_) = kNoTimeout;
  std::uint64_t request_timeout_ms_ GUARDED_BY(queue_lock_) = kNoTimeout;
  std::list<CItem>
      current_[2];  // index: Direction; at most one request; only used by the thread that runs the queue
  OBJECT_MONITOR<CBaseStream> monitor_;
};

#endif  // GX_STREAM_BASE_STREAM_H
