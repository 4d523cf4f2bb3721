// The one thread that reads the plugin stream.
#ifndef GX_PORTFWD_SERVER_STREAM_THREAD_H
#define GX_PORTFWD_SERVER_STREAM_THREAD_H

#include <cstdint>

#include "base/base_thread.h"
#include "gxmod/control_ssh.h"
#include "gxmod/frames.h"
#include "portfwd/connection_handler.h"
#include "portfwd/plugin_link.h"
#include "stream/ibuffer.h"

// Whom the frames are for. Called on the reader's thread.
class IFrameReceiver {
 public:
  // The reader is about to read the next frame.
  virtual void BeforeFrame() = 0;
  // The connection with that id; empty: there is none.
  virtual CRefObj<MyHandler> FindStream(std::uint32_t id) = 0;
  virtual void OnReceiveChannelsList(const char* text) = 0;
  virtual void OnTestRespond(const char* text, bool ok) = 0;

 protected:
  ~IFrameReceiver() = default;
};

// Takes one frame after the other off the stream and delivers it: data and closes to the connection with that
// id, test responses and channel lists to the client. Unknown frames, and those without memory, are read in
// full and skipped; in the latter case the frame's connection ends, with a line. The thread ends quietly when
// the stream fails or ends, or when it is stopped; the connections stay as they are. It never waits for the far
// side to read.
class CServerStreamThread final : public CBaseThread {
 public:
  CServerStreamThread() { SetThreadName("reader"); }
  ~CServerStreamThread() override { CBaseThread::Stop(); }

  // Before Run, not while the thread runs. `owner` is not counted.
  void put_Owner(IFrameReceiver* owner, CRefObj<CPluginLink> link);

  // The stream has to be closed first: this waits for a Read that is on its way.
  bool Stop() override;
  using CBaseThread::Stop;

  // Reads exactly `length` bytes from the stream. False: null, 0, or the stream failed.
  bool ReadData(unsigned char* data, unsigned int length);

 protected:
  bool ThreadLoop() override;

 private:
  // True with an empty `payload`: there was no memory for it, and it has been skipped.
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
