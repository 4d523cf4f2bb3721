// One local connection and its frames.
#ifndef GX_PORTFWD_CONNECTION_HANDLER_H
#define GX_PORTFWD_CONNECTION_HANDLER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "portfwd/fill_buffer.h"
#include "portfwd/plugin_link.h"
#include "stream/ibase_stream.h"

class MyHandler;

// Is told when a connection ends.
class IConnectionOwner {
 public:
  // Called on the thread that ended it. `owes_close`: the far side knows the connection and must be told of its
  // end.
  virtual void OnEnd(MyHandler& connection, bool owes_close) = 0;

 protected:
  ~IConnectionOwner() = default;
};

// Turns events of a local stream into frames: Connect when it is connected, Data for each read step, Close when
// it has ended. The data must arrive in buffers of a CFrameAlloctor. Shares its reference count with its stream
// (StreamDecorator_T). Threads: Handle on the thread that causes the event; Deliver and End on the thread that
// reads the plugin stream.
class MyHandler : public IBaseStream::IBaseHandler, public IReference {
 public:
  explicit MyHandler(IBaseStream* stream) : stream_(stream) {}

  // Call these two before the connection is used for forwarding. The owner outlives the stream's end. `link` is
  // empty while the owner has no plugin stream; the connection then ends as soon as it is connected.
  void put_Target(std::string target) { target_ = std::move(target); }
  void Join(IConnectionOwner& owner, std::uint32_t id, CRefObj<CPluginLink> link);

  std::uint32_t get_Id() const { return id_; }
  IBaseStream* stream() const { return stream_; }
  CPluginLink* link() const { return link_.get(); }

  using IBaseHandler::Handle;
  // Returns false for a read step whose frame had to wait for the far side, so that the reactor serves others
  // first; true otherwise.
  bool Handle(IBaseStream* stream, IBaseStream::NotifyType type, IBuffer* buffer,
              unsigned long length) override;
  virtual void Disconnect();
  // Like FillBuffer and FillBuffer2, with this connection's id.
  virtual bool FillBuffer(gxmod::ConnectionType type, const void* payload, void* out, std::uint64_t length);
  virtual bool FillBuffer2(gxmod::ConnectionType type, CRefObj<IBuffer> buffer, std::uint32_t offset,
                           const void* payload, std::uint32_t length);

  // Queues `length` bytes for the local client. After End they are dropped.
  CFlowControl::Filled Deliver(IBuffer* buffer, std::uint32_t length);
  // Ends the connection once all delivered data was sent. A second call does nothing.
  void End();
  // Writes the Close frame.
  void SendClose() { SendFrame(gxmod::ConnectionType::Close, {}); }
  // Marks that the Close is still to be sent, because memory ran out. Reader's thread.
  void put_OwesClose() { owes_close_ = true; }
  bool OwesClose() const { return owes_close_; }
  // Memory of the data that is queued for the local client, in bytes.
  std::uint64_t Owed() const { return link_ ? link_->flow().Owed(account_) : 0; }
  // For the link's flow control.
  CFlowControl::Account& account() { return account_; }

 private:
  void OnConnected();
  void OnDisconnected();
  bool SendData(IBuffer& buffer, unsigned long length);
  bool SendFrame(gxmod::ConnectionType type, std::string_view payload);

  IConnectionOwner* owner_ = nullptr;  // null: the connection has no owner
  CRefObj<CPluginLink> link_;
  std::uint32_t id_ = 0;
  std::string target_;  // host:port
  IBaseStream* const stream_;
  CFlowControl::Account account_;
  bool end_delivered_ = false;  // reader only
  bool owes_close_ = false;     // reader only
  // new -> announced (Connect is being sent, so Close is owed) -> ended; or new -> ended, without telling the
  // far side.
  enum class State { kNew, kAnnounced, kEnded };
  std::atomic<State> state_{State::kNew};
};

#endif  // GX_PORTFWD_CONNECTION_HANDLER_H
