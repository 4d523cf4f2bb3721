// Text of a program that runs here, for a terminal.
#ifndef GX_SSH_READABLE_H
#define GX_SSH_READABLE_H

#include <string>
#include <string_view>

namespace gxtool {

// Characters in UTF-8 stay as they are. What could speak to the terminal or change the order of the text does
// not: control characters, the marks for writing from right to left, line separators and bytes that are no
// UTF-8 become \xNN, byte by byte.
std::string Readable(std::string_view text);

// Without those last bytes that begin a character whose rest is missing.
std::string_view WholeCharacters(std::string_view text);

}  // namespace gxtool

#endif  // GX_SSH_READABLE_H
