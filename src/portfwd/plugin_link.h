// A plugin stream with its writer and flow control, shared by all their users.
#ifndef GX_PORTFWD_PLUGIN_LINK_H
#define GX_PORTFWD_PLUGIN_LINK_H

#include "gxmod/control_ssh.h"
#include "object/creference.h"
#include "portfwd/flow_control.h"
#include "portfwd/plugin_writer.h"

// The client creates one for each stream that it is given. The reader and each connection hold the link that
// they started with, so they never change streams and need not ask the client for it. Threads: any; see the
// members.
class CPluginLink final : public CReference {
 public:
  // Takes a reference to `stream`, which must not be null.
  CPluginLink(IPluginStreamRaw* stream, const CFlowControl::Limits& limits)
      : stream_(stream), flow_(limits), writer_(stream, flow_) {}

  // The stream for the reader.
  IPluginStreamRaw& stream() { return *stream_; }
  CPluginWriter& writer() { return writer_; }
  CFlowControl& flow() { return flow_; }

  // Closes the stream. Logs an exception from the host's Close.
  void Close();

 private:
  ~CPluginLink() override = default;

  const CRefObj<IPluginStreamRaw> stream_;
  CFlowControl flow_;
  CPluginWriter writer_;
};

#endif  // GX_PORTFWD_PLUGIN_LINK_H
