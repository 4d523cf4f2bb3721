#include "module/create.h"

#include <strings.h>

#include <cstdio>
#include <exception>
#include <string>

#include "module/create_policy_helper.h"
#include "module/ssh_client.h"
#include "runtime/gxmod_runtime.h"

namespace {

constexpr std::uint32_t kCreated = 1;
constexpr std::uint32_t kNotCreated = 0;

struct VersionText {
  explicit VersionText(GXModVersion version) {
    std::snprintf(text, sizeof text, "%u.%u.%u", unsigned{version.major_number}, unsigned{version.minor_number},
                  version.build_number);
  }
  char text[20];
};

std::uint32_t Create(IGXModCreateParams* params, void** out) {
  const CGXModCreatePolicyHelper request(params);
  const std::uint64_t version = request.GetModuleVersion();
  std::string name;
  request.GetString(kGXModPropertyInterfaceName, name);
  if (version == 0 || name.empty()) {
    GXModLog(kGXModLogError, "[ssh_control] ssh_control_create invalid property");
    return kNotCreated;
  }
  GXModLog(kGXModLogInfo, "[ssh_control] ssh_control_create interface %s  version %s modversion %s",
           name.c_str(), VersionText(GXModUnpackVersion(version)).text, VersionText(kControlSshVersion).text);
  if (strcasecmp(name.c_str(), kControlSshInterfaceName) != 0) {
    GXModLog(kGXModLogError, "[ssh_control] ssh_control_create invalid interface %s", name.c_str());
    return kNotCreated;
  }
  if (GXModUnpackVersion(version).major_number != kControlSshVersion.major_number) {
    GXModLog(kGXModLogError, "[ssh_control] ssh_control_create fail, version not match");
    return kNotCreated;
  }
  CRefObj<IControlSshPlugin> plugin(new CSSHClientRaw);
  *out = plugin.Detach();
  GXModLog(kGXModLogInfo, "[ssh_control] ssh_control_create success");
  return kCreated;
}

}  // namespace

bool ssh_control_init(void* runtime) {
  if (runtime == nullptr) return false;
  CGXModRuntime* adapter = CSingleton_T<CGXModRuntime>::Instance();
  auto* host = static_cast<IGXModRuntime*>(runtime);
  if (host != adapter) adapter->SetHost(host);  // avoids a loop: the adapter would forward to itself
  return true;
}

void ssh_control_uninit() { CSingleton_T<CGXModRuntime>::Instance()->SetHost(nullptr); }

std::uint32_t ssh_control_create(void* params, void** out) {
  if (params == nullptr || out == nullptr) {
    GXModLog(kGXModLogError, "[ssh_control] ssh_control_create invalid param");
    return kNotCreated;
  }
  try {
    return Create(static_cast<IGXModCreateParams*>(params), out);
  } catch (const std::exception& failure) {  // out of memory
    GXModLog(kGXModLogError, "[ssh_control] ssh_control_create fail, %s", failure.what());
  } catch (...) {
    GXModLog(kGXModLogError, "[ssh_control] ssh_control_create fail, the host's params threw");
  }
  return kNotCreated;
}
