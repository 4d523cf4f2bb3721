#include "gxmod/module.h"
#include "module/create.h"

namespace {

const gxlink_module_t gxlink_module_control_ssh = {
    GXModPackVersion({2, 0, 0}),
    "gx-control-ssh",
    &ssh_control_init,
    &ssh_control_uninit,
    &ssh_control_create,
    __DATE__ " " __TIME__,
    {},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const gxlink_module_t* gxmod_get_entrypoint() {
  return &gxlink_module_control_ssh;
}
