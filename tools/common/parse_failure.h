// How a parser of option texts gives up.
#ifndef GX_COMMON_PARSE_FAILURE_H
#define GX_COMMON_PARSE_FAILURE_H

#include <optional>
#include <string>

namespace gxtool {

// No value; `*why`, when given, tells a person the reason.
inline std::nullopt_t ParseFailure(std::string* why, const std::string& reason) {
  if (why != nullptr) *why = reason;
  return std::nullopt;
}

}  // namespace gxtool

#endif  // GX_COMMON_PARSE_FAILURE_H
