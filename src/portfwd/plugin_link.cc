#include "portfwd/plugin_link.h"

#include "runtime/gxmod_runtime.h"

void CPluginLink::Close() {
  try {
    stream_->Close();
  } catch (...) {  // the connections and the port have to go all the same
    GXModLog(kGXModLogError, "[portfwd] Close of the plugin stream ended with an exception");
  }
}
