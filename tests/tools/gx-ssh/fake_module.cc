// A stand-in for the module, as wrong as the variable FAKE_MODULE says.

#include <gxmod/control_ssh.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "gx-ssh/counted.h"

namespace {

// "Listens" at port 7 and drains the stream.
class Plugin final : public gxtool::Counted<IControlSshPlugin> {
 public:
  std::uint32_t Load(const wchar_t*) override { return kGXModOk; }
  std::uint32_t InitInstance(IPluginStreamRaw* stream) override {
    stream_ = stream;
    return kGXModOk;
  }
  std::uint32_t Run() override {
    reader_ = std::thread([this] {
      char bytes[100];
      unsigned got = 0;
      while (stream_->Read(bytes, sizeof bytes, &got, 0) == kGXModOk) {
      }
    });
    return kGXModOk;
  }
  std::uint32_t ExitInstance() override {
    stream_->Close();
    reader_.join();
    return kGXModOk;
  }
  const char* GetLocalAddress() override { return "127.0.0.1"; }
  std::uint16_t GetLocalPort() override { return 7; }
  void SetListener(IControlSshListener*) override {}
  bool GetInterface(const char*, void**) override { return false; }
  int SetProperty(const char*, IGXModData*) override { return 0; }
  IGXModData* GetProperty(const char*) override { return nullptr; }

 private:
  CRefObj<IPluginStreamRaw> stream_;
  std::thread reader_;
};

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

std::uint32_t Create(void* params, void** out) {
  auto* properties = static_cast<IGXModCreateParams*>(params);
  IGXModData* version = properties->GetProperty(kGXModPropertyVersion);
  IGXModData* name = properties->GetProperty(kGXModPropertyInterfaceName);
  const bool asked_well = version->GetType() == kGXModDataUInt64 && name->GetType() == kGXModDataText &&
                          version->GetUInt64() == GXModPackVersion(kControlSshVersion) &&
                          std::string_view(name->GetText()) == kControlSshInterfaceName;
  if (Fault() == "create" || !asked_well) return 0;
  *out = CRefObj<IControlSshPlugin>(new Plugin).Detach();
  return 1;
}

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
