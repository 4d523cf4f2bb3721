// A plugin stream and what belongs to it, for as long as somebody uses it.
#ifndef GX_PORTFWD_PLUGIN_LINK_H
#define GX_PORTFWD_PLUGIN_LINK_H

#include "gxmod/control_ssh.h"
#include "object/reference.h"
#include "portfwd/flow_control.h"
#include "portfwd/plugin_writer.h"

// The client makes one for each stream that it is given. The reader holds the link that it was started with,
// and a connection the one that it was accepted with, so neither has to ask the client for it, and none of them
// ever changes streams. Threads: any; see the parts.
class CPluginLink final : public CReference {
 public:
  // Takes a reference on `stream`, which is not null.
  CPluginLink(IPluginStreamRaw* stream, const CFlowControl::Limits& limits)
      : stream_(stream), flow_(limits), writer_(stream, flow_) {}

  // What the reader reads.
  IPluginStreamRaw& stream() { return *stream_; }
  CPluginWriter& writer() { return writer_; }
  CFlowControl& flow() { return flow_; }

  // Closes the stream. A host's Close that throws is logged.
  void Close();

 private:
  ~CPluginLink() override = default;

  const CRefObj<IPluginStreamRaw> stream_;
  CFlowControl flow_;
  CPluginWriter writer_;
};

#endif  // GX_PORTFWD_PLUGIN_LINK_H
