// The one way out to the plugin stream.
#ifndef GX_PORTFWD_PLUGIN_WRITER_H
#define GX_PORTFWD_PLUGIN_WRITER_H

#include <cstddef>

#include "base/mutex_lock.h"
#include "gxmod/control_ssh.h"
#include "portfwd/flow_control.h"

// Writes whole frames, one after the other: the host's Write may take part of a block, and no frame may land
// inside another one. Threads: any but the reader's. WriteFrame waits for its turn and for the host; nothing
// but the host's Write runs meanwhile.
class CPluginWriter {
 public:
  // Takes a reference on `stream`, which is not null. `flow` hears of every Write and outlives the writer.
  CPluginWriter(IPluginStreamRaw* stream, CFlowControl& flow) : stream_(stream), flow_(flow) {}
  CPluginWriter(const CPluginWriter&) = delete;
  CPluginWriter& operator=(const CPluginWriter&) = delete;

  // `length` bytes at `frame`, header and payload. False: the host took only a part at first, or more than a
  // millisecond; the far side is slow. Gives the frame up silently when the stream fails; when it failed in the
  // middle of a frame, or Write threw, every later one is dropped, since the far side could not tell where it
  // begins.
  bool WriteFrame(const void* frame, std::size_t length);

 private:
  const CRefObj<IPluginStreamRaw> stream_;
  CFlowControl& flow_;
  CStdMutex mutex_;
  bool torn_ GUARDED_BY(mutex_) = false;
};

#endif  // GX_PORTFWD_PLUGIN_WRITER_H
