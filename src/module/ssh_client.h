// The plugin that the host receives: one channel, "ssh", over the host's stream.
#ifndef GX_MODULE_SSH_CLIENT_H
#define GX_MODULE_SSH_CLIENT_H

#include <cstdint>
#include <string>

#include "gxmod/control_ssh.h"
#include "object/creference.h"
#include "portfwd/port_forward_client.h"

// For contract, threads and result codes see IControlSshPlugin. Every operation catches all exceptions. Stream,
// client and listener stay referenced until the plugin is destroyed.
class CSSHClientRaw final : public IControlSshPlugin, private CReference {
 public:
  CSSHClientRaw() = default;
  GX_FORWARD_REFERENCE();

  std::uint32_t Load(const wchar_t* /*config*/) override { return kGXModOk; }
  std::uint32_t InitInstance(IPluginStreamRaw* stream) override;
  std::uint32_t Run() override;
  std::uint32_t ExitInstance() override;
  CRefObj<IPluginStreamRaw> GetPluginStream() override { return plugin_stream_; }

  const char* GetLocalAddress() override { return local_address_.c_str(); }
  std::uint16_t GetLocalPort() override { return local_port_; }
  void SetListener(IControlSshListener* listener) override {
    listener_ = CRefObj<IControlSshListener>(listener);
  }

  bool GetInterface(const char* name, void** out) override;
  int SetProperty(const char* /*key*/, IGXModData* /*value*/) override { return 0; }
  IGXModData* GetProperty(const char* /*key*/) override { return nullptr; }

 private:
  ~CSSHClientRaw() override = default;
  std::uint32_t TellAddress(IChannelRaw& channel);
  std::string Target() const;

  CRefObj<IPluginStreamRaw> plugin_stream_;
  CRefObj<IPortForwardClientRaw> client_;
  CRefObj<IControlSshListener> listener_;
  std::string local_address_ = "127.0.0.1";
  std::uint16_t local_port_ = 22;
};

#endif  // GX_MODULE_SSH_CLIENT_H
