// Percent coding.
#ifndef GX_PORTFWD_URL_CODE_H
#define GX_PORTFWD_URL_CODE_H

#include <string>

// Everything but ASCII letters and digits becomes "%" and two upper-case hexadecimal digits. Ends at the first
// NUL.
std::string url_encode(const std::string& text);

// "+" becomes a space. The result is empty when an escape is cut short or holds no number; one whose second
// digit is none counts as the first digit alone.
std::string url_decode(const std::string& text);

#endif  // GX_PORTFWD_URL_CODE_H
