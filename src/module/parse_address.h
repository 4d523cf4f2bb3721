#ifndef GX_MODULE_PARSE_ADDRESS_H
#define GX_MODULE_PARSE_ADDRESS_H

#include <string>

// Splits at the first colon; the port may be empty. False: empty, or no colon. An IPv6 literal splits wrongly.
bool ParseAddress(const std::string& address, std::string& host, std::string& port);

#endif  // GX_MODULE_PARSE_ADDRESS_H
