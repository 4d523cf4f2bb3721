// The one thread that reads the plugin stream.
#ifndef GX_PORTFWD_SERVER_STREAM_THREAD_H
#define GX_PORTFWD_SERVER_STREAM_THREAD_H

#include <cstdint>

#include "base/base_thread.h"
#include "gxmod/control_ssh.h"
#include "gxmod/frames.h"
#include "stream/ibuffer.h"

class CPortForwardClientRaw;
class MyHandler;

// Takes one frame after the other off the stream and delivers it: data and closes to the connection with that
// id, test responses and channel lists to the client. What nobody wants, and what there is no memory for, is
// read in full and dropped; in the latter case the frame's connection ends, with a line. The thread ends
// quietly when the stream fails or ends, or when it is stopped; the connections stay as they are.
class CServerStreamThread final : public CBaseThread {
 public:
  CServerStreamThread() = default;
  ~CServerStreamThread() override { CBaseThread::Stop(); }

  // Not counted; before Run.
  void put_Owner(CPortForwardClientRaw* owner) { owner_ = owner; }

  // The stream has to be closed first: this waits for a Read that is on its way.
  bool Stop() override;
  using CBaseThread::Stop;

  // Reads exactly `length` bytes from the stream of the present frame. False: null, 0, or the stream failed.
  bool ReadData(unsigned char* data, unsigned int length);

 protected:
  bool ThreadLoop() override;
  void OnExit() override { stream_ = nullptr; }

 private:
  // True with an empty `payload`: there was no memory for it, and it has been skipped.
  bool ReadPayload(std::uint32_t length, CRefObj<IBuffer>& payload);
  bool Skip(std::uint32_t length);
  void Lose(std::uint32_t connection_id);
  void Dispatch(const gxmod::FrameHeader& header, IBuffer* payload);
  void DeliverData(std::uint32_t connection_id, IBuffer* payload);
  void DeliverTestResponse(IBuffer* payload);
  void WaitForSlowClient(MyHandler& connection);

  CPortForwardClientRaw* owner_ = nullptr;
  CRefObj<IPluginStreamRaw> stream_;  // of the present frame; only the thread itself
};

#endif  // GX_PORTFWD_SERVER_STREAM_THREAD_H
