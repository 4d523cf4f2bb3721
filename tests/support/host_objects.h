// The objects that a host gives to the module.
#ifndef GX_TESTS_SUPPORT_HOST_OBJECTS_H
#define GX_TESTS_SUPPORT_HOST_OBJECTS_H

#include "gxmod/control_ssh.h"
#include "object/creference.h"
#include "support/leak_gate.h"
#include "support/test.h"

namespace gxtest {

// The parameters of `create`. The same object is also the property that was asked for last.
class CreateParams final : public IGXModCreateParams, public IGXModData, private CReference {
 public:
  // An empty name: the property is missing. No version: the version property is a text.
  explicit CreateParams(std::string name = kControlSshInterfaceName,
                        std::optional<std::uint64_t> version = GXModPackVersion(kControlSshVersion))
      : name_(std::move(name)), version_(version) {}
  GX_FORWARD_REFERENCE();
  IGXModData* GetProperty(const char* key) override {
    is_version_ = std::string_view(key) == kGXModPropertyVersion;
    return is_version_ || !name_.empty() ? this : nullptr;
  }
  int GetType() const override { return is_version_ && version_ ? kGXModDataUInt64 : kGXModDataText; }
  const char* GetText() const override { return name_.c_str(); }
  std::uint64_t GetUInt64() const override { return version_.value_or(GXModPackVersion(kControlSshVersion)); }

 private:
  const std::string name_;
  const std::optional<std::uint64_t> version_;
  bool is_version_ = false;
};

// Records what a plugin tells its host.
class PluginListener final : public IControlSshListener, private CReference {
 public:
  explicit PluginListener(std::string target) : target_(std::move(target)) {}
  GX_FORWARD_REFERENCE();
  void OnLocalAddress(const char* address, std::uint16_t port) override {
    calls.push_back(std::string(address) + ":" + std::to_string(port));
    if (throws) throw std::bad_alloc();
  }
  void OnExit() override {
    calls.push_back(AnyPortListens() ? "exit too early" : "exit");
    if (throws) throw std::bad_alloc();
  }
  const char* GetRemoteAddress() override { return target_.c_str(); }

  std::vector<std::string> calls;
  bool throws = false;  // out of OnLocalAddress and OnExit

 private:
  const std::string target_;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_HOST_OBJECTS_H
