// The one interface to a byte stream.
#ifndef GX_STREAM_IBASE_STREAM_H
#define GX_STREAM_IBASE_STREAM_H

#include <cstdint>

#include "gxmod/reference.h"
#include "stream/ibuffer.h"
#include "stream/property_list.h"
#include "stream/thread_safty.h"

// Reasons that a stream gives for a disconnect.
enum StreamCode : unsigned {
  kStreamAgain = 0xC000,         // the system's EAGAIN; two more reasons share the number, as handlers know it:
  kStreamEnd = kStreamAgain,     //   the empty write, an orderly end
  kStreamNoRoom = kStreamAgain,  //   a receive buffer without room
  kStreamDestroyed = 0xC001,     // the stream's last reference went
  kStreamTimeout = 0xE004,       // a request or a socket task ran out of time; host down or unreachable
  kStreamSocketError = 0xE005,   // also: a read without a buffer
  kStreamTimedOut = 0xE007,      // the system's ETIMEDOUT
  kStreamConnReset = 0xE068,     // the system's ECONNRESET
  kStreamOtherError = 0xE3E7,    // any other errno
};

// Time-outs are milliseconds; this one means "no limit".
inline constexpr unsigned long kNoTimeout = ~0UL;
// What a transfer operation returns when the stream is not connected.
inline constexpr unsigned long kNotConnected = ~0UL;

// Reads, peeks and writes are requests that complete later; a handler hears of it. Requests share the buffer
// with the caller: the stream holds a reference of its own until the request has completed. Every operation
// below reaches the stream through one of the facets at the end of the table, so that a decorator can replace
// one facet; where a facet is null the operation returns 0, false or null. Threads: any, except that the
// handler is installed before the stream is shared.
class IBaseStream : public IReference {
 public:
  using StreamType = std::uint32_t;  // passed through, without meaning to the stream

  enum NotifyType : std::uint32_t {
    kConnected = 0,
    kDisconnected = 1,  // once; the length is the reason, a StreamCode
    // The length is what this step appended to the buffer. The handler answers false when it had to wait for
    // the far side: the stream then reads on only when others have had their turn.
    kReadStep = 2,
    kWriteStep = 3,  // the length is what this step sent
    kReadDone = 4,   // the length is that of the whole request, as in the next two
    kWriteDone = 5,
    kPeekDone = 6,
  };

  // One entry of a gather write.
  struct _WRITE_BUF {
    IBuffer* buffer;
    unsigned long length;
  };

  // Hears what happens on a stream, on whichever thread makes it happen. No lock of the stream is held
  // meanwhile.
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
    virtual void* SetUserData_impl(void* data) = 0;  // returns the previous word
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

    // The StreamCode for an errno.
    static unsigned ErrnoToTarnErrorCode(unsigned int error);
  };

  // Queue one request and move what can be moved at once. They return the bytes moved by this call (0 is no
  // failure), or kNotConnected.
  virtual unsigned long Write(_WRITE_BUF* list, unsigned long count, unsigned long timeout_ms);
  virtual unsigned long Write(IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  // A null `buffer` lets the stream make one of `length` bytes, when there is something to read; steps of 4,096
  // bytes at most then tell what was read at once. A handler that has no more use for the bytes of a step may
  // set the size back to what it was before the first one: the stream goes on behind them, but gives an empty
  // buffer back while it waits, and later steps come in another one. A `length` of 0 queues nothing.
  virtual unsigned long Read(IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  virtual unsigned long Peek(IBuffer* buffer, unsigned long length, unsigned long timeout_ms);
  // True when this call ended the stream.
  virtual bool Disconnect(unsigned int reason);
  virtual void* SetUserData(void* data);  // returns the previous word
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
  // The handler is not counted: its owner keeps it alive while it is installed. Returns the previous one.
  virtual IBaseHandler* Handler() const;
  virtual IBaseHandler* Handler(IBaseHandler* handler);

  virtual IUserDataImpl* UserDataImpl() = 0;
  virtual IHandlerImpl* HandlerImpl() = 0;
  virtual IPropertyList_Impl* PropertyListImpl() = 0;
  virtual IIOOperatorImpl* IOOperatorImpl() = 0;
  virtual IStatusImpl* StatusImpl() = 0;
  virtual IThreadSafty* ThreadSaftyImpl() = 0;

  // Queues the empty write: once everything queued before it has left, the stream disconnects with
  // kStreamEnd.
  unsigned long WriteEnd() { return Write(static_cast<IBuffer*>(nullptr), 0, kNoTimeout); }
};

#endif  // GX_STREAM_IBASE_STREAM_H
