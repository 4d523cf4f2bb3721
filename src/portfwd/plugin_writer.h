// Writes frames to the plugin stream.
#ifndef GX_PORTFWD_PLUGIN_WRITER_H
#define GX_PORTFWD_PLUGIN_WRITER_H

#include <cstddef>

#include "base/mutex_lock.h"
#include "gxmod/control_ssh.h"
#include "portfwd/flow_control.h"

// Writes whole frames, one at a time: the host's Write may take part of a block, and frames must not be mixed.
// Threads: any except the reader's. WriteFrame waits for earlier frames and for the host; while it holds the
// lock it calls only the host's Write.
class CPluginWriter {
 public:
  // Takes a reference to `stream`, which must not be null. `flow` is informed of every Write and outlives the
  // writer.
  CPluginWriter(IPluginStreamRaw* stream, CFlowControl& flow) : stream_(stream), flow_(flow) {}
  CPluginWriter(const CPluginWriter&) = delete;
  CPluginWriter& operator=(const CPluginWriter&) = delete;

  // Writes `length` bytes at `frame`: header and payload. Returns false when the first Write took only part of
  // them, or Write took more than a millisecond: the far side is slow. Drops the frame silently when the stream
  // fails. After a failure in the middle of a frame, or when Write threw, all later frames are dropped, because
  // the far side could not find where they start.
  bool WriteFrame(const void* frame, std::size_t length);

 private:
  const CRefObj<IPluginStreamRaw> stream_;
  CFlowControl& flow_;
  CStdMutex mutex_;
  bool torn_ GUARDED_BY(mutex_) = false;
};

#endif  // GX_PORTFWD_PLUGIN_WRITER_H
