// The thread that reads the plugin stream.
#ifndef GX_PORTFWD_SERVER_STREAM_THREAD_H
#define GX_PORTFWD_SERVER_STREAM_THREAD_H

#include <cstdint>

#include "base/base_thread.h"
#include "gxmod/control_ssh.h"
#include "gxmod/frames.h"
#include "portfwd/connection_handler.h"
#include "portfwd/plugin_link.h"
#include "stream/ibuffer.h"

// Receives the frames, on the reader's thread.
class IFrameReceiver {
 public:
  // Called before each frame is read.
  virtual void BeforeFrame() = 0;
  // Returns the connection with that id; empty when there is none.
  virtual CRefObj<MyHandler> FindStream(std::uint32_t id) = 0;
  virtual void OnReceiveChannelsList(const char* text) = 0;
  virtual void OnTestRespond(const char* text, bool ok) = 0;

 protected:
  ~IFrameReceiver() = default;
};

// Reads frames from the stream and delivers them: Data and Close to the connection with that id, test responses
// and channel lists to the client. Unknown frames, and frames for which memory runs out, are read in full and
// skipped; in the second case the frame's connection ends and a line is logged. The thread ends silently when
// the stream fails, ends or is stopped; the connections are left alone. It never waits for the far side to
// read.
class CServerStreamThread final : public CBaseThread {
 public:
  CServerStreamThread() { SetThreadName("reader"); }
  ~CServerStreamThread() override { CBaseThread::Stop(); }

  // Call it before Run, while the thread is stopped. `owner` is borrowed.
  void put_Owner(IFrameReceiver* owner, CRefObj<CPluginLink> link);

  // Close the stream first: Stop waits for a running Read.
  bool Stop() override;
  using CBaseThread::Stop;

  // Reads exactly `length` bytes from the stream. Returns false for null, for 0, and when the stream failed.
  bool ReadData(unsigned char* data, unsigned int length);

 protected:
  bool ThreadLoop() override;

 private:
  // Returns true with an empty `payload` when memory ran out; the payload is then skipped.
  bool ReadPayload(std::uint32_t length, CRefObj<IBuffer>& payload);
  bool Skip(std::uint32_t length);
  void Lose(const gxmod::FrameHeader& header);
  void Dispatch(const gxmod::FrameHeader& header, IBuffer* payload);
  void DeliverData(std::uint32_t connection_id, IBuffer* payload);
  void DeliverTestResponse(IBuffer* payload);
  void WaitForRoom(MyHandler& connection, CFlowControl::Filled filled);

  IFrameReceiver* owner_ = nullptr;
  CRefObj<CPluginLink> link_;
};

#endif  // GX_PORTFWD_SERVER_STREAM_THREAD_H
