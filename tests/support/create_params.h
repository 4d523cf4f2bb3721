// What a host asks `create` for.
#ifndef GX_TESTS_SUPPORT_CREATE_PARAMS_H
#define GX_TESTS_SUPPORT_CREATE_PARAMS_H

#include "gxmod/control_ssh.h"
#include "object/creference.h"
#include "support/test.h"

namespace gxtest {

// The parameters and both properties in one object; what it says as a property is the one asked for last.
class CreateParams final : public IGXModCreateParams, public IGXModData, private CReference {
 public:
  // With an empty name there is no such property; without a version, the version property is a text.
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

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_CREATE_PARAMS_H
