#include "base/dns_cache.h"

#include <arpa/inet.h>
#include <time.h>

#include "base/socket_address.h"
#include "support/temp_dir.h"
#include "support/test.h"

static bool operator==(const DnsRecord& a, const DnsRecord& b) {
  return std::tie(a.name, a.ips, a.timestamp) == std::tie(b.name, b.ips, b.timestamp);
}

namespace {

using Ips = std::vector<std::string>;

DnsQuery QueryFor(int family) { return {family, SOCK_STREAM, IPPROTO_TCP, htons(22), false}; }

// The addresses of a list. Checks all fields that a caller of connect uses.
Ips Walk(const addrinfo* list) {
  Ips ips;
  for (const addrinfo* info = list; info != nullptr; info = info->ai_next) {
    EXPECT_EQ(info->ai_socktype, SOCK_STREAM);
    EXPECT_EQ(info->ai_protocol, IPPROTO_TCP);
    EXPECT_EQ(info->ai_addr->sa_family, info->ai_family);
    EXPECT_EQ(info->ai_addrlen, info->ai_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(info->ai_addr)->sin_port, htons(22));
    gxbase::IPAddress ip;
    EXPECT_TRUE(gxbase::IPFromAddrInfo(info, &ip));
    ips.push_back(ip.ToString());
  }
  return ips;
}

Ips Fill(const DnsRecord& record, int family) {
  const auto block = std::make_unique<DnsAddrInfo>();
  return Walk(block->FillRecord(record, QueryFor(family)));
}

DnsRecord Crowd(const std::string& name) {
  DnsRecord record{name, {}, 1};
  for (int i = 0; i < 1000; ++i) {
    record.ips.push_back((i % 3 == 0 ? "2001:db8::" : "10.0.0.") + std::to_string(1 + i % 250));
  }
  return record;
}

TEST(DnsAnswerTest, HoldsTheFamilyAskedInTheRecordsOrderAndAsManyAsFit) {
  const DnsRecord record{"a", {"1.1.1.1", "::2", "nonsense", "3.3.3.3", "::4"}, 1};
  EXPECT_EQ(Fill(record, AF_UNSPEC), (Ips{"1.1.1.1", "::2", "3.3.3.3", "::4"}));
  EXPECT_EQ(Fill(record, AF_INET), (Ips{"1.1.1.1", "3.3.3.3"}));
  EXPECT_EQ(Fill(record, AF_INET6), (Ips{"::2", "::4"}));
  EXPECT_EQ(Fill(record, AF_UNIX), Ips{});

  constexpr std::size_t kBlock = 5120;
  const DnsRecord crowd = Crowd("a");
  EXPECT_EQ(Fill(crowd, AF_INET).size(), kBlock / (sizeof(addrinfo) + sizeof(sockaddr_in)));
  EXPECT_EQ(Fill(crowd, AF_INET6).size(), kBlock / (sizeof(addrinfo) + (sizeof(sockaddr_in6) + 7) / 8 * 8));
  const Ips mixed = Fill(crowd, AF_UNSPEC);
  EXPECT_TRUE(std::equal(mixed.begin(), mixed.end() - 1, crowd.ips.begin()));
}

TEST(DnsAnswerTest, TheNameIsGivenOnRequest) {
  DnsQuery query = QueryFor(AF_INET);
  const auto block = std::make_unique<DnsAddrInfo>();
  EXPECT_EQ(block->FillRecord(Crowd("a"), query)->ai_canonname, nullptr);
  query.wants_name = true;
  const addrinfo* list = block->FillRecord(Crowd(std::string(5055, 'n')), query);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->ai_canonname, std::string(5055, 'n'));
  EXPECT_EQ(Walk(list), Ips{"10.0.0.2"}) << "there is room for one address beside the name";
  EXPECT_EQ(block->FillRecord(Crowd(std::string(5056, 'n')), query), nullptr);
}

TEST(DnsQueryTest, TheSystemTellsPortTypeAndProtocol) {
  addrinfo hints{};
  hints.ai_family = AF_INET6;
  hints.ai_protocol = IPPROTO_UDP;
  hints.ai_flags = AI_NUMERICSERV | AI_CANONNAME;
  const auto query = DnsQuery::Make("5353", &hints);
  ASSERT_TRUE(query);
  EXPECT_EQ(std::tie(query->family, query->socktype, query->protocol, query->port, query->wants_name),
            std::tuple(AF_INET6, SOCK_DGRAM, IPPROTO_UDP, htons(5353), true));
  EXPECT_FALSE(DnsQuery::Make("ssh", &hints)) << "no number";
  EXPECT_EQ(DnsQuery::Make(nullptr, nullptr)->socktype, SOCK_STREAM);
}

// A document with one good record after the element under test: that record must be read.
std::string Document(const std::string& element) {
  return R"({"cache": [)" + element + R"(, {"name": "z", "ips": ["9.9.9.9"], "timestamp": 9}]})";
}

TEST(DnsRecordsTest, FormatAndParseAreInverseAndWhatIsNoRecordIsSkipped) {
  const std::pair<std::string, std::optional<std::uint32_t>> cases[] = {
      {R"({"name": "a", "ips": ["1.2.3.4"], "timestamp": 1234567890.9})", 1234567890},
      {R"({"name": "a", "ips": ["1.2.3.4"], "timestamp": 4294967296})", std::nullopt},
      {R"({"name": "a", "ips": [""], "timestamp": 5})", std::nullopt},
      {R"({"name": "a", "ips": ["", 7, null, ["1.1.1.1"], "nothing", "1.2.3.4"], "timestamp": 0})", 0},
      {R"({"name": "z", "ips": ["1.2.3.4"], "timestamp": 5})", std::nullopt},  // replaced by the later one
  };
  for (const auto& [element, timestamp] : cases) {
    DnsRecords wanted{{"z", {"z", {"9.9.9.9"}, 9}}};
    if (timestamp) wanted["a"] = {"a", {"1.2.3.4"}, *timestamp};
    EXPECT_EQ(ParseDnsRecords(Document(element)), wanted) << element;
  }
  const std::string whole = Document("1");
  for (const std::string& text : {whole.substr(0, whole.size() - 1), std::string("[]"),
                                  std::string(R"({"cache": {}})"), std::string(5000, '[')}) {
    EXPECT_EQ(ParseDnsRecords(text), DnsRecords()) << text;
  }

  const std::string name = "a \"quoted\"\n\xC3\xA4";
  const DnsRecords records{{name, {name, {"192.0.2.1", "2001:db8::1"}, 4294967295}}, {"", {"", {"::"}, 0}}};
  const std::string text = FormatDnsRecords(records);
  EXPECT_EQ(ParseDnsRecords(text), records);
  EXPECT_NE(text.find("\"timestamp\" : 4294967295"), std::string::npos) << text;
}

class ScriptedStorage final : public DnsCacheStorage {
 public:
  bool Read(std::string* text) override {
    if (throws_) throw std::runtime_error("read");
    *text = text_;
    return true;
  }
  bool Write(const std::string& text) override {
    if (throws_) throw std::runtime_error("write");
    if (writable_) text_ = text;
    return writable_;
  }

  std::string text_;
  bool writable_ = true;
  bool throws_ = false;
};

std::uint32_t Now() { return static_cast<std::uint32_t>(time(nullptr)); }

std::string Text(const std::string& name, const Ips& ips, std::uint32_t timestamp) {
  return FormatDnsRecords({{name, {name, ips, timestamp}}});
}

class DnsCacheTest : public testing::Test {
 protected:
  // Tells the cache that the system has found `ip` for `name`.
  void Succeed(const std::string& name, const std::string& ip) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* live = nullptr;
    ASSERT_EQ(getaddrinfo(ip.c_str(), nullptr, &hints, &live), 0);
    addrinfo* list = live;
    EXPECT_EQ(cache_.getaddrinfo_local(name.c_str(), nullptr, nullptr, &list, 0), 0);
    EXPECT_EQ(list, live);
    cache_.freeaddrinfo_local(list);
  }

  // Tells the cache that the system has found nothing, and returns the cache's addresses.
  Ips Fail(const std::string& name) { return FailIn(cache_, name); }

  static Ips FailIn(DnsCache& cache, const std::string& name) {
    addrinfo* list = nullptr;
    const int code = cache.getaddrinfo_local(name.c_str(), "22", nullptr, &list, EAI_AGAIN);
    EXPECT_EQ(code, list != nullptr ? 0 : EAI_AGAIN);
    const Ips ips = Walk(list);
    cache.freeaddrinfo_local(list);
    return ips;
  }

  DnsRecords Saved() const { return ParseDnsRecords(FileText(path_)); }

  const TempDir dir_;
  const std::string path_ = dir_.path() + "/dnscache.json";
  ScriptedStorage storage_;
  DnsCache cache_;
};

TEST_F(DnsCacheTest, AGoodAnswerIsSavedAndAnotherProcessAnswersFromIt) {
  EXPECT_TRUE(cache_.Init(path_, 0, /*refresh=*/1'000'000));
  std::uint32_t before = Now();
  Succeed("host.example", "192.0.2.7");
  ASSERT_EQ(Saved().size(), 1u);
  EXPECT_EQ(Saved().at("host.example").ips, Ips{"192.0.2.7"});
  EXPECT_GE(Saved().at("host.example").timestamp, before);
  EXPECT_LE(Saved().at("host.example").timestamp, Now());

  DnsCache other;
  EXPECT_TRUE(other.Init(path_, 0, 0));
  EXPECT_EQ(FailIn(other, "host.example"), Ips{"192.0.2.7"});
  EXPECT_EQ(FailIn(other, "unknown.example"), Ips{});

  do {  // when the second changes meanwhile the answer counts as fresh, and is not saved
    before = Now();
    Succeed("host.example", "2001:db8::1");
  } while (Now() != before);
  EXPECT_EQ(Fail("host.example"), Ips{"2001:db8::1"}) << "the latest answer";
  EXPECT_EQ(Saved().at("host.example").ips, Ips{"2001:db8::1"}) << "and is saved at once";
}

TEST_F(DnsCacheTest, AHostEntryHoldsTheIpv4Addresses) {
  EXPECT_EQ(cache_.gethostbyname_local("host", nullptr), nullptr) << "not enabled yet";
  cache_.Init(&storage_, 0, 0);
  storage_.text_ = Text("host", {"1.2.3.4", "::1", "5.6.7.8"}, 1);
  hostent* host = cache_.gethostbyname_local("host", nullptr);
  ASSERT_NE(host, nullptr);
  EXPECT_STREQ(host->h_name, "host");
  EXPECT_EQ(cache_.gethostbyname_local("other", host), host) << "a live answer";
  EXPECT_EQ(Fail("other"), (Ips{"1.2.3.4", "5.6.7.8"}));
  EXPECT_EQ(cache_.gethostbyname_local("nobody", nullptr), nullptr);
  cache_.freehost_local(host);
  const auto block = std::make_unique<DnsHostent>();
  EXPECT_EQ(block->FillRecord({"name", {"::1"}, 1}), nullptr);
  EXPECT_NE(block->FillRecord(Crowd("name")), nullptr) << "with as many addresses as fit";
}

TEST_F(DnsCacheTest, WhatCannotBeAnsweredKeepsTheResolversCode) {
  addrinfo* list = nullptr;
  storage_.text_ = Text("host", {"1.2.3.4"}, 1);
  EXPECT_FALSE(cache_.Init("", 0, 0));
  EXPECT_FALSE(cache_.Init(static_cast<DnsCacheStorage*>(nullptr), 0, 0));
  EXPECT_EQ(Fail("host"), Ips{}) << "not enabled yet";

  EXPECT_TRUE(cache_.Init(&storage_, 0, 0));
  errno = ENOMSG;
  EXPECT_EQ(cache_.getaddrinfo_local("unknown", nullptr, nullptr, &list, EAI_SYSTEM), EAI_SYSTEM);
  EXPECT_EQ(errno, ENOMSG) << "the caller needs it with EAI_SYSTEM";
  EXPECT_EQ(cache_.getaddrinfo_local("host", nullptr, nullptr, nullptr, EAI_FAIL), EAI_FAIL);
  EXPECT_EQ(cache_.getaddrinfo_local("host", "no-such-service", nullptr, &list, EAI_FAIL), EAI_FAIL);
  EXPECT_EQ(cache_.getaddrinfo_local(nullptr, "22", nullptr, &list, EAI_FAIL), EAI_FAIL);
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(Fail("host"), Ips{"1.2.3.4"});
}

TEST_F(DnsCacheTest, AnOldRecordIsPrunedOnlyAmongMoreThanTwoHundred) {
  for (const auto& [hosts, max_age, pruned] :
       {std::tuple(198, 0u, false), {198, 1000u, false}, {199, 0u, false}, {199, 1000u, true}}) {
    DnsRecords records{{"old", {"old", {"1.1.1.1"}, Now() - 2000}},
                       {"future", {"future", {"1.1.1.1"}, Now() + 1000}}};
    for (int i = 0; i < hosts; ++i) {
      const std::string name = "host" + std::to_string(i);
      records[name] = {name, {"1.1.1.1"}, Now() - 100};
    }
    storage_.text_ = FormatDnsRecords(records);
    DnsCache cache;
    cache.Init(&storage_, max_age, 0);
    for (const char* name : {"old", "future"}) EXPECT_EQ(FailIn(cache, name).empty(), pruned) << hosts;
    EXPECT_FALSE(FailIn(cache, "host0").empty());
  }
}

TEST_F(DnsCacheTest, WhatCannotBeReadOrSavedChangesNoResult) {
  cache_.Init(path_, 0, 0);
  std::string text = Text("host", {"1.2.3.4"}, 1);
  text.resize(0x500000, ' ');
  std::ofstream(path_, std::ios::binary) << text << ' ';
  EXPECT_EQ(Fail("host"), Ips{}) << "too long";
  std::ofstream(path_, std::ios::binary) << text;
  EXPECT_EQ(Fail("host"), Ips{"1.2.3.4"});

  cache_.Init(&storage_, 0, 0);
  storage_.text_ = Text("kept", {"1.1.1.1"}, 1);
  EXPECT_EQ(Fail("kept"), Ips{"1.1.1.1"});
  storage_.writable_ = false;
  Succeed("kept", "2.2.2.2");
  EXPECT_EQ(Fail("unknown"), Ips{}) << "this reads the old text again";
  EXPECT_EQ(Fail("kept"), Ips{"2.2.2.2"});
  storage_.text_ = storage_.text_.substr(0, storage_.text_.size() / 2);
  storage_.writable_ = true;
  Succeed("new", "3.3.3.3");
  EXPECT_EQ(ParseDnsRecords(storage_.text_).at("kept").ips, Ips{"2.2.2.2"});

  storage_.throws_ = true;
  EXPECT_EQ(Fail("other"), Ips{});
  Succeed("host", "5.6.7.8");
  cache_.Init(path_, 0, 0);
  Succeed("last", "6.7.8.9");
  EXPECT_EQ(Saved().count("last"), 1U) << "the file takes the place of the storage";
}

// The process-wide cache in front of the system's resolver.
TEST_F(DnsCacheTest, LooksUpLiveRemembersAndFallsBack) {
  dnscache_init(&storage_, 0, 0);
  addrinfo* list = nullptr;
  ASSERT_EQ(dnscache_getaddrinfo("::1", "22", nullptr, &list), 0);
  EXPECT_EQ(ParseDnsRecords(storage_.text_).count("::1"), 1u) << storage_.text_;
  // The label is too long for a query, so the system asks no name server.
  EXPECT_NE(dnscache_getaddrinfo((std::string(70, 'x') + ".invalid").c_str(), nullptr, nullptr, &list), 0);
  EXPECT_EQ(ParseDnsRecords(storage_.text_).size(), 1U) << "the list is that of the look-up before";
  dnscache_freeaddrinfo(list);
  dnscache_init(static_cast<DnsCacheStorage*>(nullptr), 0, 0);
}

}  // namespace
