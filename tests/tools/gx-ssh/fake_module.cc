// A wrong module; the environment variable FAKE_MODULE tells what is wrong. It creates no plugin.

#include <gxmod/control_ssh.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

IGXModRuntime* g_runtime = nullptr;

std::string_view Fault() {
  const char* fault = std::getenv("FAKE_MODULE");
  return fault == nullptr ? "" : fault;
}

bool Init(void* runtime) {
  std::puts("a careless library");
  std::fflush(stdout);
  g_runtime = static_cast<IGXModRuntime*>(runtime);
  return Fault() != "init";
}

void Uninit() { g_runtime->Log(kGXModLogInfo, "uninit"); }

std::uint32_t Create(void*, void**) { return 0; }

}  // namespace

extern "C" __attribute__((visibility("default"))) const gxlink_module_t* gxmod_get_entrypoint() {
  static gxlink_module_t entry{
      GXModPackVersion({Fault() == "version" ? std::uint16_t{3} : std::uint16_t{2}, 0, 0}),
      Fault() == "name" ? "other" : "gx-control-ssh",
      Init,
      Uninit,
      Create,
      "Nov 17 2025 12:09:42",
      {}};
  return &entry;
}
