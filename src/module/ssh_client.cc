#include "module/ssh_client.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

#include "module/parse_address.h"
#include "runtime/gxmod_runtime.h"

namespace {

constexpr const char* kChannelName = "ssh";
constexpr const char* kDefaultTarget = "127.0.0.1:22";

// The host may be built without exceptions; memory that runs out becomes a result code, and a line.
template <class Operation>
std::uint32_t WithoutExceptions(const char* name, Operation operation) noexcept {
  try {
    return operation();
  } catch (const std::exception& error) {
    GXModLog(kGXModLogError, "[SSH] %s failed: %s", name, error.what());
  } catch (...) {
    GXModLog(kGXModLogError, "[SSH] %s failed: an exception", name);
  }
  return kGXModFail;
}

}  // namespace

std::uint32_t CSSHClientRaw::InitInstance(IPluginStreamRaw* stream) {
  GXModLog(kGXModLogInfo, "[SSH] call %s ", "InitInstance");
  plugin_stream_ = CRefObj<IPluginStreamRaw>(stream);
  client_ = nullptr;  // a failure leaves none behind, so that Run cannot mistake it for a success
  return WithoutExceptions("InitInstance", [&]() -> std::uint32_t {
    CRefObj<IPortForwardClientRaw> client = CreatePortForwardClient();
    if (!client) return kGXModNothingDone;
    client->InitInstance(stream);  // a null stream is the client's to refuse, in Run
    client_ = std::move(client);
    return kGXModOk;
  });
}

std::uint32_t CSSHClientRaw::Run() {
  GXModLog(kGXModLogInfo, "[SSH] call %s ", "Run");
  if (!client_) return kGXModNothingDone;
  return WithoutExceptions("Run", [&]() -> std::uint32_t {
    // A client without a stream opens its port all the same and ends whoever comes; one without a reader would
    // leave them waiting.
    if (client_->Run() == kGXModFail) return kGXModFail;
    IChannelRaw* channel = client_->NewChannel(kChannelName, "", Target().c_str());
    if (channel == nullptr) return kGXModFail;
    const std::uint32_t result = WithoutExceptions("Run", [&] { return TellAddress(*channel); });
    if (result != kGXModOk) channel->Stop();  // nobody may listen after a failure
    return result;
  });
}

std::uint32_t CSSHClientRaw::ExitInstance() {
  GXModLog(kGXModLogInfo, "[SSH] call %s ", "ExitInstance");
  // Whatever the host's part of it does, the client must not run on.
  WithoutExceptions("Close", [&] { return plugin_stream_ ? plugin_stream_->Close() : kGXModOk; });
  WithoutExceptions("ExitInstance", [&] { return client_ ? client_->ExitInstance() : kGXModOk; });
  WithoutExceptions("OnExit", [&]() -> std::uint32_t {
    if (listener_) listener_->OnExit();
    return kGXModOk;
  });
  return kGXModOk;
}

bool CSSHClientRaw::GetInterface(const char* name, void** out) {
  if (name == nullptr || out == nullptr || std::strcmp(name, kControlSshInterfaceName) != 0) return false;
  AddRef();
  *out = static_cast<IControlSshPlugin*>(this);
  return true;
}

// Learns where the channel listens, and tells the listener.
std::uint32_t CSSHClientRaw::TellAddress(IChannelRaw& channel) {
  const char* text = channel.get_LocalAddress();
  const std::string address = text != nullptr ? text : "";
  if (address.empty()) return kGXModFail;
  std::string host;
  std::string port;
  ParseAddress(address, host, port);
  if (!port.empty()) local_port_ = static_cast<std::uint16_t>(std::atoi(port.c_str()));
  if (!host.empty()) local_address_ = host;
  if (listener_) listener_->OnLocalAddress(local_address_.c_str(), local_port_);
  return kGXModOk;
}

std::string CSSHClientRaw::Target() const {
  const std::string target = listener_ ? listener_->GetRemoteAddress() : "";
  return target.empty() ? kDefaultTarget : target;
}
