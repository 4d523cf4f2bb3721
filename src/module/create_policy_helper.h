// What a creation request asks for.
#ifndef GX_MODULE_CREATE_POLICY_HELPER_H
#define GX_MODULE_CREATE_POLICY_HELPER_H

#include <cstdint>
#include <string>

#include "gxmod/module.h"

// Keeps a reference on the request.
class CGXModCreatePolicyHelper {
 public:
  explicit CGXModCreatePolicyHelper(IGXModCreateParams* params) : params_(params) {}

  // Packed; 0 when the property is missing or no integer.
  std::uint64_t GetModuleVersion() const;
  // False: the property is missing or no text, and `value` is untouched.
  bool GetString(const char* key, std::string& value) const;

 private:
  CRefObj<IGXModData> GetValue(const char* key, GXModDataType type) const;

  const CRefObj<IGXModCreateParams> params_;
};

#endif  // GX_MODULE_CREATE_POLICY_HELPER_H
