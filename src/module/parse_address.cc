#include "module/parse_address.h"

bool ParseAddress(const std::string& address, std::string& host, std::string& port) {
  const std::size_t colon = address.find(':');
  if (colon == std::string::npos) return false;
  host = address.substr(0, colon);
  port = address.substr(colon + 1);
  return true;
}
