// Percent coding.
#ifndef GX_PORTFWD_URL_CODE_H
#define GX_PORTFWD_URL_CODE_H

#include <string>

// Replaces everything except ASCII letters and digits by "%" and two upper-case hexadecimal digits. Stops at
// the first NUL byte.
std::string url_encode(const std::string& text);

// Turns "+" into a space. Returns an empty text when an escape is cut short or is not a number. If only the
// second digit is invalid, the first one counts alone.
std::string url_decode(const std::string& text);

#endif  // GX_PORTFWD_URL_CODE_H
