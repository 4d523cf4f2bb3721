#ifndef GX_MODULE_PARSE_ADDRESS_H
#define GX_MODULE_PARSE_ADDRESS_H

#include <string>

// Splits at the first colon; the port may be empty. Returns false for text without a colon. Not for IPv6
// literals, which contain colons.
bool ParseAddress(const std::string& address, std::string& host, std::string& port);

#endif  // GX_MODULE_PARSE_ADDRESS_H
