#include "module/parse_address.h"

#include "base/socket_address.h"

bool ParseAddress(const std::string& address, std::string& host, std::string& port) {
  return gxbase::SplitAtColon(address, host, port);
}
