#include "base/dns_answer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <memory>
#include <string>

#include "base/socket_address.h"

namespace {

// `count` addresses that differ; every `ipv6_every`th is IPv6 (0: none).
DnsRecord RecordOf(int count, int ipv6_every, const std::string& name = "host.example") {
  DnsRecord record{name, {}, 1};
  for (int i = 1; i <= count; ++i) {
    const bool ipv6 = ipv6_every != 0 && i % ipv6_every == 0;
    const std::string low = std::to_string(1 + i / 250) + (ipv6 ? ":" : ".") + std::to_string(1 + i % 250);
    record.ips.push_back((ipv6 ? "2001:db8::" : "10.0.") + low);
  }
  return record;
}

// The addresses of a list, after a look at everything that a caller of connect relies on.
std::vector<std::string> Walk(const addrinfo* list, const DnsQuery& query) {
  std::vector<std::string> ips;
  for (const addrinfo* info = list; info != nullptr; info = info->ai_next) {
    EXPECT_EQ(info->ai_socktype, query.socktype);
    EXPECT_EQ(info->ai_protocol, query.protocol);
    EXPECT_EQ(info->ai_addr->sa_family, info->ai_family);
    EXPECT_EQ(info->ai_addrlen, info->ai_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(info->ai_addr)->sin_port, query.port);
    gxbase::IPAddress ip;
    EXPECT_TRUE(gxbase::IPFromAddrInfo(info, &ip));
    ips.push_back(ip.ToString());
  }
  return ips;
}

DnsQuery QueryFor(int family) { return {family, SOCK_STREAM, IPPROTO_TCP, htons(22), false}; }

std::vector<std::string> Fill(const DnsRecord& record, const DnsQuery& query) {
  const auto block = std::make_unique<DnsAddrInfo>();
  const addrinfo* list = block->FillRecord(record, query);
  EXPECT_TRUE(list == nullptr || static_cast<const void*>(list) == block.get());
  return Walk(list, query);
}

TEST(DnsAnswerTest, AListHoldsTheFamilyAskedInTheRecordsOrder) {
  const DnsRecord record{"a", {"1.1.1.1", "::2", "nonsense", "3.3.3.3", "::4"}, 1};
  using List = std::vector<std::string>;
  EXPECT_EQ(Fill(record, QueryFor(AF_UNSPEC)), (List{"1.1.1.1", "::2", "3.3.3.3", "::4"}));
  EXPECT_EQ(Fill(record, QueryFor(AF_INET)), (List{"1.1.1.1", "3.3.3.3"}));
  EXPECT_EQ(Fill(record, QueryFor(AF_INET6)), (List{"::2", "::4"}));
  EXPECT_EQ(Fill(record, QueryFor(AF_UNIX)), List{});
  EXPECT_EQ(Fill({"a", {"1.1.1.1"}, 1}, QueryFor(AF_INET6)), List{});
  EXPECT_EQ(Fill({"a", {}, 1}, QueryFor(AF_UNSPEC)), List{});
}

TEST(DnsAnswerTest, AsManyAddressesAsFitAreGiven) {
  constexpr std::size_t kBlock = 5120;
  constexpr std::size_t kIpv4Entry = sizeof(addrinfo) + sizeof(sockaddr_in);
  constexpr std::size_t kIpv6Entry = sizeof(addrinfo) + (sizeof(sockaddr_in6) + 7) / 8 * 8;
  EXPECT_EQ(Fill(RecordOf(1000, 0), QueryFor(AF_INET)).size(), kBlock / kIpv4Entry);
  EXPECT_EQ(Fill(RecordOf(1000, 1), QueryFor(AF_INET6)).size(), kBlock / kIpv6Entry);

  // Whatever the mixture and wherever it ends, the list is a beginning of the record, but for what is too
  // large.
  for (int every = 2; every < 12; ++every) {
    const DnsRecord record = RecordOf(1000, every);
    const std::vector<std::string> ips = Fill(record, QueryFor(AF_UNSPEC));
    EXPECT_GE(ips.size(), kBlock / kIpv6Entry);
    EXPECT_TRUE(std::equal(ips.begin(), ips.end() - 1, record.ips.begin())) << every;
  }
}

TEST(DnsAnswerTest, TheNameIsGivenOnRequest) {
  DnsQuery query = QueryFor(AF_INET);
  const auto block = std::make_unique<DnsAddrInfo>();
  EXPECT_EQ(block->FillRecord(RecordOf(3, 0), query)->ai_canonname, nullptr);
  query.wants_name = true;
  for (const std::size_t length : {0u, 1u, 7u, 1000u, 4000u, 5055u}) {
    const std::string name(length, 'n');
    const addrinfo* list = block->FillRecord(RecordOf(1000, 0, name), query);
    ASSERT_NE(list, nullptr) << length;
    EXPECT_EQ(list->ai_canonname, name);
    EXPECT_EQ(Walk(list, query).front(), "10.0.1.2");
  }
  for (const std::size_t length : {5056u, 5120u, 1'000'000u}) {
    EXPECT_EQ(block->FillRecord(RecordOf(3, 0, std::string(length, 'n')), query), nullptr) << length;
  }
}

TEST(DnsQueryTest, TheSystemTellsPortTypeAndProtocol) {
  const struct {
    const char* service;
    int socktype;
    int protocol;
    int flags;
    int expected_port;  // -1: no such service
    int expected_type;
    int expected_protocol;
  } cases[] = {
      {"0", 0, IPPROTO_UDP, 0, 0, SOCK_DGRAM, IPPROTO_UDP},
      {"no-such-service", SOCK_STREAM, 0, 0, -1, 0, 0},
      {"ssh", SOCK_STREAM, 0, AI_NUMERICSERV, -1, 0, 0},
  };
  for (const auto& c : cases) {
    addrinfo hints{};
    hints.ai_flags = c.flags;
    hints.ai_family = AF_INET6;
    hints.ai_socktype = c.socktype;
    hints.ai_protocol = c.protocol;
    const std::optional<DnsQuery> query = DnsQuery::Make(c.service, &hints);
    ASSERT_EQ(query.has_value(), c.expected_port >= 0) << c.service;
    if (!query) continue;
    EXPECT_EQ(ntohs(query->port), c.expected_port);
    EXPECT_EQ(query->socktype, c.expected_type);
    EXPECT_EQ(query->protocol, c.expected_protocol);
    EXPECT_EQ(query->family, AF_INET6);
  }
  const std::optional<DnsQuery> plain = DnsQuery::Make("22", nullptr);
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->family, AF_UNSPEC);
  EXPECT_EQ(plain->socktype, SOCK_STREAM);
}

}  // namespace
