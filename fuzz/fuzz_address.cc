// Addresses as text: a parsed address prints as a text that parses as the same address. Listening on a text
// opens the named port or none.
#include <netdb.h>

#include <memory>

#include "base/socket_address.h"
#include "check.h"
#include "sock/sock_acceptor.h"

using gxbase::IPAddress;
using gxbase::SocketAddress;

namespace {

void CheckAddress(const std::string& text) {
  IPAddress ip;
  Check(gxbase::IPFromString(text, &ip) == (ip.family() != AF_UNSPEC));
  const SocketAddress address(text, 22);
  Check(address.IsLiteral() == (ip.family() != AF_UNSPEC));
  if (!address.IsLiteral()) return Check(ip.ToString().empty());
  IPAddress again;
  Check(gxbase::IPFromString(ip.ToString(), &again) && again.ToString() == ip.ToString());
  Check(again.family() == ip.family() && gxbase::IPIsAny(again) == gxbase::IPIsAny(ip));

  // The system's resolver takes the text for the same address.
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  Check(getaddrinfo(text.c_str(), nullptr, &hints, &list) == 0);
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, &freeaddrinfo);
  Check(gxbase::IPFromAddrInfo(list, &again) && again.ToString() == ip.ToString());
}

int PortOf(const std::string& address) { return std::atoi(address.substr(address.rfind(':') + 1).c_str()); }

void CheckListening(const std::string& text) {
  CSockAcceptor acceptor;
  const bool listens = acceptor.StartListen(text.c_str(), nullptr);
  Check(listens == acceptor.IsRunning() && listens == (PortOf(acceptor.GetAddress()) != 0));
  acceptor.Stop();
  Check(!acceptor.IsRunning());
  if (!listens) return;
  const bool brackets = text[0] == '[';
  const std::size_t end = text.find(brackets ? ']' : ':');
  Check(end != std::string::npos && SocketAddress(text.substr(brackets, end - brackets), 0).IsLiteral());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = Text(data, size);
  CheckAddress(text);
  CheckListening(text);
  return 0;
}
