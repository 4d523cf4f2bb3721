// Reads a creation request.
#ifndef GX_MODULE_CREATE_POLICY_HELPER_H
#define GX_MODULE_CREATE_POLICY_HELPER_H

#include <cstdint>
#include <string>

#include "gxmod/module.h"

// Holds a reference to the request.
class CGXModCreatePolicyHelper {
 public:
  explicit CGXModCreatePolicyHelper(IGXModCreateParams* params) : params_(params) {}

  // The packed version; 0 when the property is missing or is not an integer.
  std::uint64_t GetModuleVersion() const;
  // Returns false, with `value` untouched, when the property is missing or is not text.
  bool GetString(const char* key, std::string& value) const;

 private:
  CRefObj<IGXModData> GetValue(const char* key, GXModDataType type) const;

  const CRefObj<IGXModCreateParams> params_;
};

#endif  // GX_MODULE_CREATE_POLICY_HELPER_H
