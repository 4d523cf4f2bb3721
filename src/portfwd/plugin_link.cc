#include "portfwd/plugin_link.h"

#include "runtime/gxmod_runtime.h"

void CPluginLink::Close() {
  try {
    stream_->Close();
  } catch (...) {  // stopping must continue: connections and port have to be closed
    GXModLog(kGXModLogError, "[portfwd] Close of the plugin stream ended with an exception");
  }
}
