// The failure result of parsers for option texts.
#ifndef GX_COMMON_PARSE_FAILURE_H
#define GX_COMMON_PARSE_FAILURE_H

#include <optional>
#include <string>

namespace gxtool {

// Returns no value; `*why` (may be null) gets the reason, for people.
inline std::nullopt_t ParseFailure(std::string* why, const std::string& reason) {
  if (why != nullptr) *why = reason;
  return std::nullopt;
}

}  // namespace gxtool

#endif  // GX_COMMON_PARSE_FAILURE_H
