// Makes a local program's text safe for a terminal.
#ifndef GX_SSH_READABLE_H
#define GX_SSH_READABLE_H

#include <string>
#include <string_view>

namespace gxtool {

// Keeps UTF-8 characters. Writes everything that could control the terminal or reorder the text as \xNN, byte
// by byte: control characters, marks for right-to-left writing, line separators and bytes that are not UTF-8.
std::string Readable(std::string_view text);

// The text without an incomplete character at its end.
std::string_view WholeCharacters(std::string_view text);

}  // namespace gxtool

#endif  // GX_SSH_READABLE_H
