// Text that came from elsewhere, made safe for a terminal and a log.
#ifndef GX_COMMON_ESCAPE_H
#define GX_COMMON_ESCAPE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace gxtool {

inline constexpr std::size_t kQuoteBytes = 200;

// Printable ASCII stays; a backslash, line ends and tabs become \\ \n \r \t, every other byte \xNN. Of a text
// longer than `max_bytes` only the beginning is taken, followed by "...".
std::string Escape(std::string_view text, std::size_t max_bytes = kQuoteBytes);

}  // namespace gxtool

#endif  // GX_COMMON_ESCAPE_H
