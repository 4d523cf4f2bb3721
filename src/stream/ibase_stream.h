// The interface of a byte stream.
#ifndef GX_STREAM_IBASE_STREAM_H
#define GX_STREAM_IBASE_STREAM_H

#include <cstdint>

#include "gxmod/reference.h"
#include "stream/ibuffer.h"
#include "stream/property_list.h"
#include "stream/thread_safty.h"

// Reasons for a disconnect.
enum StreamCode : unsigned {
  kStreamAgain = 0xC000,  // the system's EAGAIN; existing handlers rely on two more reasons with this number:
  kStreamEnd = kStreamAgain,     // the empty write, a normal end
  kStreamNoRoom = kStreamAgain,  // a full receive buffer
  kStreamDestroyed = 0xC001,     // the stream's last reference was dropped
  kStreamTimeout = 0xE004,       // a request or a socket task timed out; host down or unreachable
  kStreamSocketError = 0xE005,   // also: a read without a buffer
  kStreamTimedOut = 0xE007,      // the system's ETIMEDOUT
  kStreamConnReset = 0xE068,     // the system's ECONNRESET
  kStreamOtherError = 0xE3E7,    // any other errno
};

// Time limits are in milliseconds; this value means "no limit".
inline constexpr unsigned long kNoTimeout = ~0UL;
// The result of a transfer operation when the stream is not connected.
inline constexpr unsigned long kNotConnected = ~0UL;

// Reads, peeks and writes are requests that complete later; the handler is told. A request shares its buffer
// with the caller: the stream holds a reference until the request has completed. Every operation below calls
// one of the facets at the end of the table, so that a decorator can replace a facet; where a facet is null,
// the operation returns 0, false or null.
// Threads: any, except that the handler must be set before the stream is shared.
class IBaseStream : public IReference {
 public:
  using StreamType = std::uint32_t;  // stored for the owner, without a meaning for the stream

  enum NotifyType : std::uint32_t {
    kConnected = 0,
    kDisconnected = 1,  // once; the length is the reason, a StreamCode
    // The length is the number of bytes that this step appended to the buffer. The handler answers false when
    // it had to wait for the far side: the stream then continues reading after the others' turns.
    kReadStep = 2,
    kWriteStep = 3,  // the length is the number of bytes that this step sent
    kReadDone = 4,   // here and below the length is that of the whole request
    kWriteDone = 5,
    kPeekDone = 6,
  };

  // One entry of a gather write.
  struct _WRITE_BUF {
    IBuffer* buffer;
    unsigned long length;
  };

  // Receives a stream's events, on the thread that causes them. No lock of the stream is held during a call.
  class IBaseHandler {
   public:
    virtual bool Handle(CRefObj<IBaseStream> stream, NotifyType type, CRefObj<IBuffer> buffer);
    // The form that transports call.
    virtual bool Handle(IBaseStream* stream, NotifyType type, IBuffer* buffer, unsigned long length) = 0;
    virtual ~IBaseHandler() = default;
  };

  class IUserDataImpl {
   public:
    virtual ~IUserDataImpl() = default;
    virtual void* SetUserData_impl(void* data) = 0;  // returns the previous value
    virtual void* GetUserData_impl() const = 0;
  };

  class IHandlerImpl {
   public:
    virtual ~IHandlerImpl() = default;
    virtual IBaseHandler* Handler_impl() const = 0;
    virtual IBaseHandler* Handler_impl(IBaseHandler* handler) = 0;  // returns the previous handler
  };

  class IIOOperatorImpl {
   public:
    virtual ~IIOOperatorImpl() = default;
    virtual unsigned long Write_impl(_WRITE_BUF* list, unsigned long count, unsigned long timeout_ms) = 0;
    virtual unsigned long Read_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) = 0;
    virtual unsigned long Peek_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) = 0;
    virtual unsigned long Write_impl(IBuffer* buffer, unsigned long length, unsigned long timeout_ms) = 0;
    virtual bool Disconnect_impl(unsigned int reason) = 0;
  };

  class IStatusImpl {
   public:
    virtual ~IStatusImpl() = default;
    virtual bool IsConnect_impl() const = 0;
    virtual bool IsClosed_impl() const = 0;
    virtual StreamType GetStreamType_impl() const = 0;
    virtual const char* GetStreamName_impl() const = 0;
    virtual const char* GetPeerName_impl() const = 0;
    virtual bool HadConnected_impl() const = 0;

    // Returns the StreamCode for an errno.
    static unsigned ErrnoToTarnErrorCode(unsigned int error);
  };

  // Queue one request and move what can be moved at once. They return the number of bytes moved by this call (0
  // is not a failure), or kNotConnected.
  virtual unsigned long Write(_WRITE_BUF* list, unsigned long count, unsigned long timeout_ms);
  virtual unsigned long Write(IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  // With a null `buffer` the stream creates one of `length` bytes, or of its allocator's maximum, when there is
  // data to read, and reports the data of each read in steps of at most 4,096 bytes. A handler that no longer
  // needs a step's bytes may reset the buffer's size to the size before the first step: the stream then reads
  // into the same room again, and releases the buffer while it waits. A `length` of 0 queues nothing.
  virtual unsigned long Read(IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  virtual unsigned long Peek(IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  // Returns true when this call ended the stream.
  virtual bool Disconnect(unsigned int reason);
  virtual void* SetUserData(void* data);  // returns the previous value
  virtual void* GetUserData() const;
  virtual void SetReceiveNonAck(bool on);  // does nothing
  virtual bool IsConnect() const;          // connected and not closed
  virtual bool IsClosed() const;
  virtual bool HadConnected() const;
  virtual StreamType GetStreamType() const;
  virtual const char* GetStreamName() const;
  virtual const char* GetPeerName() const;
  virtual bool AddProperty(IReference* property);
  virtual bool DelProperty(IReference* property);
  virtual bool DeleteAll();
  // The handler is borrowed: its owner keeps it alive while it is set. Returns the previous one.
  virtual IBaseHandler* Handler() const;
  virtual IBaseHandler* Handler(IBaseHandler* handler);

  virtual IUserDataImpl* UserDataImpl() = 0;
  virtual IHandlerImpl* HandlerImpl() = 0;
  virtual IPropertyList_Impl* PropertyListImpl() = 0;
  virtual IIOOperatorImpl* IOOperatorImpl() = 0;
  virtual IStatusImpl* StatusImpl() = 0;
  virtual IThreadSafty* ThreadSaftyImpl() = 0;

  // Queues the empty write: when all earlier requests have been sent, the stream disconnects with kStreamEnd.
  unsigned long WriteEnd() { return Write(static_cast<IBuffer*>(nullptr), 0, kNoTimeout); }
};

#endif  // GX_STREAM_IBASE_STREAM_H
