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

// The host may be built without exceptions, so an exception becomes a log line and a result code.
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
  client_ = nullptr;  // after a failure Run must not find the previous client
  return WithoutExceptions("InitInstance", [&]() -> std::uint32_t {
    CRefObj<IPortForwardClientRaw> client = CreatePortForwardClient();
    if (!client) return kGXModNothingDone;
    client->InitInstance(stream);  // Run reports a null stream
    client_ = std::move(client);
    return kGXModOk;
  });
}

std::uint32_t CSSHClientRaw::Run() {
  GXModLog(kGXModLogInfo, "[SSH] call %s ", "Run");
  if (!client_) return kGXModNothingDone;
  return WithoutExceptions("Run", [&]() -> std::uint32_t {
    // Without a stream the client still opens its port and disconnects every connection. Without a reader,
    // connections would hang, so that is a failure.
    if (client_->Run() == kGXModFail) return kGXModFail;
    IChannelRaw* channel = client_->NewChannel(kChannelName, "", Target().c_str());
    if (channel == nullptr) return kGXModFail;
    const std::uint32_t result = WithoutExceptions("Run", [&] { return TellAddress(*channel); });
    if (result != kGXModOk) channel->Stop();  // after a failure nothing may listen
    return result;
  });
}

std::uint32_t CSSHClientRaw::ExitInstance() {
  GXModLog(kGXModLogInfo, "[SSH] call %s ", "ExitInstance");
  // A failure in the host's code must not keep the client running.
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

// Stores the channel's listening address and passes it to the listener.
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
