#include "module/create_policy_helper.h"

std::uint64_t CGXModCreatePolicyHelper::GetModuleVersion() const {
  const CRefObj<IGXModData> version = GetValue(kGXModPropertyVersion, kGXModDataUInt64);
  return version ? version->GetUInt64() : 0;
}

bool CGXModCreatePolicyHelper::GetString(const char* key, std::string& value) const {
  const CRefObj<IGXModData> text = GetValue(key, kGXModDataText);
  if (text) value = text->GetText();
  return static_cast<bool>(text);
}

// Empty when the property is missing or has another type.
CRefObj<IGXModData> CGXModCreatePolicyHelper::GetValue(const char* key, GXModDataType type) const {
  if (!params_) return {};
  CRefObj<IGXModData> value(params_->GetProperty(key));
  if (!value || value->GetType() != type) return {};
  return value;
}
