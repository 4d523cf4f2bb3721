// One local connection as the far side sees it.
#ifndef GX_PORTFWD_CONNECTION_HANDLER_H
#define GX_PORTFWD_CONNECTION_HANDLER_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "portfwd/frames.h"
#include "stream/ibase_stream.h"

class CPluginWriter;
class CPortForwardClientRaw;

// Turns what happens on a local stream into frames: Connect when it is connected, Data for every read step,
// Close when it has ended. Counted together with its stream (StreamDecorator_T). Threads: Handle on whichever
// thread makes it happen; Deliver and End on the thread that reads the plugin stream.
class MyHandler : public IBaseStream::IBaseHandler, public IReference {
 public:
  explicit MyHandler(IBaseStream* stream) : stream_(stream) {}

  // Before the connection takes part in forwarding; all three by the client, which outlives the connection.
  void put_Owner(CPortForwardClientRaw* owner) { owner_ = owner; }
  void put_Id(std::uint32_t id) { id_ = id; }
  void put_Target(std::string target) { target_ = std::move(target); }

  std::uint32_t get_Id() const { return id_; }
  IBaseStream* stream() const { return stream_; }

  using IBaseHandler::Handle;
  // Always true.
  bool Handle(IBaseStream* stream, IBaseStream::NotifyType type, IBuffer* buffer,
              unsigned long length) override;
  virtual void Disconnect();
  // As FillBuffer and FillBuffer2, with this connection's id.
  virtual bool FillBuffer(gxmod::ConnectionType type, const void* payload, void* out, std::uint64_t length);
  virtual bool FillBuffer2(gxmod::ConnectionType type, CRefObj<IBuffer> buffer, std::uint32_t offset,
                           const void* payload, std::uint32_t length);

  // Queues `length` bytes for the local client.
  void Deliver(IBuffer* buffer, std::uint32_t length);
  // Ends the connection once everything delivered before has left.
  void End() { stream_->WriteEnd(); }
  // Bytes that the local client has not taken yet.
  std::uint64_t Owed() const { return owed_.load(std::memory_order_relaxed); }

 private:
  void OnConnected();
  void OnDisconnected();
  static void ReadInto(IBaseStream& stream, IBuffer& buffer);
  void SendData(IBuffer* buffer, unsigned long length);
  bool SendFrame(gxmod::ConnectionType type, std::string_view payload);
  CRefObj<CPluginWriter> Writer() const;

  CPortForwardClientRaw* owner_ = nullptr;  // null: the client was stopping already and knows nothing of this
  std::uint32_t id_ = 0;
  std::string target_;  // host:port
  IBaseStream* const stream_;
  std::atomic<std::uint64_t> owed_{0};
  std::atomic<bool> announced_{false};  // the far side knows of it, and shall hear of its end
};

#endif  // GX_PORTFWD_CONNECTION_HANDLER_H
