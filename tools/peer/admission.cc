#include "peer/admission.h"

#include "common/escape.h"

namespace gxtool {
std::vector<StreamEndpoint> EndpointsOf(const std::vector<std::string>& addresses, std::uint16_t port) {
  std::vector<StreamEndpoint> endpoints;
  for (const std::string& text : addresses) {
    asio::error_code error;
    const asio::ip::address address = asio::ip::make_address(text, error);
    if (!error) endpoints.emplace_back(asio::ip::tcp::endpoint(address, port));
  }
  return endpoints;
}

Admission::Verdict Admission::Judge(const std::string& text, std::size_t open) const {
  std::string why;
  auto target = options_.target ? options_.target : ParseDestination(text, &why);
  if (target) why = WhyNot(*target, open);
  if (why.empty()) return {std::move(target), {}};
  const std::string quoted = target ? Escape(ToString(*target)) : '"' + Escape(text) + '"';
  return {std::nullopt, "refused " + quoted + ": " + why};
}

// Returns an empty text when the target may be opened.
std::string Admission::WhyNot(const Destination& target, std::size_t open) const {
  if (!options_.target && !options_.allow.Permits(target)) {
    return "to permit it, start with --allow " + Escape(ToString(target));
  }
  if (stopped_) return "stopping";
  if (open < options_.max_connections) return {};
  return std::to_string(open) + " connections are open, more need a higher --max-connections";
}

Admission::Places Admission::JudgeAddresses(const HostPort& target, const LookupResult& result) const {
  std::vector<std::string> addresses;
  std::string why = result.error;
  for (const std::string& address : result.addresses) {
    if (options_.target || options_.allow.PermitsAddress(target, address)) {
      addresses.push_back(address);
    } else {
      const std::string place = HostPort{address, target.port}.ToString();
      why = "it leads to " + place + "; to permit that, start with --allow " + place;
    }
  }
  return {EndpointsOf(addresses, target.port), why};
}

}  // namespace gxtool
