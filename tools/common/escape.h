// Makes text from outside safe for a terminal and a log.
#ifndef GX_COMMON_ESCAPE_H
#define GX_COMMON_ESCAPE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace gxtool {

inline constexpr std::size_t kQuoteBytes = 200;

// Keeps printable ASCII. A backslash, line ends and tabs become \\ \n \r \t and every other byte \xNN. Text
// longer than `max_bytes` is truncated, with "..." at its end.
std::string Escape(std::string_view text, std::size_t max_bytes = kQuoteBytes);

}  // namespace gxtool

#endif  // GX_COMMON_ESCAPE_H
