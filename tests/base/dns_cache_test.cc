#include "base/dns_cache.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "base/socket_address.h"
#include "support/temp_dir.h"

namespace {

using Ips = std::vector<std::string>;

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

// A live answer as the system would give it.
std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> LiveAnswer(const std::string& ip) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  EXPECT_EQ(getaddrinfo(ip.c_str(), nullptr, &hints, &list), 0);
  return {list, freeaddrinfo};
}

class DnsCacheTest : public testing::Test {
 protected:
  // The live look-up of `name` found `ip`.
  void Succeed(const std::string& name, const std::string& ip) {
    const auto live = LiveAnswer(ip);
    addrinfo* list = live.get();
    EXPECT_EQ(cache_.getaddrinfo_local(name.c_str(), nullptr, nullptr, &list, 0), 0);
    EXPECT_EQ(list, live.get());
  }

  // The live look-up of `name` failed: the addresses that the cache gives.
  Ips Fail(const std::string& name) { return FailIn(cache_, name); }

  static Ips FailIn(DnsCache& cache, const std::string& name) {
    addrinfo* list = nullptr;
    const int code = cache.getaddrinfo_local(name.c_str(), "22", nullptr, &list, EAI_AGAIN);
    EXPECT_EQ(code, list != nullptr ? 0 : EAI_AGAIN);
    Ips ips;
    for (const addrinfo* info = list; info != nullptr; info = info->ai_next) {
      gxbase::IPAddress ip;
      EXPECT_TRUE(gxbase::IPFromAddrInfo(info, &ip));
      ips.push_back(ip.ToString());
    }
    cache.freeaddrinfo_local(list);
    return ips;
  }

  std::string FileText() const {
    std::ifstream file(path_, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void SetFileText(const std::string& text) const { std::ofstream(path_, std::ios::binary) << text; }

  const TempDir dir_;
  const std::string path_ = dir_.path() + "/dnscache.json";
  ScriptedStorage storage_;
  DnsCache cache_;
};

TEST_F(DnsCacheTest, AGoodAnswerIsSavedAndAnotherProcessAnswersFromIt) {
  EXPECT_TRUE(cache_.Init(path_, 0, /*refresh=*/1'000'000));
  const std::uint32_t before = Now();
  Succeed("host.example", "192.0.2.7");
  const DnsRecords saved = ParseDnsRecords(FileText());
  ASSERT_EQ(saved.size(), 1u);
  EXPECT_EQ(saved.at("host.example").ips, Ips{"192.0.2.7"});
  EXPECT_GE(saved.at("host.example").timestamp, before);
  EXPECT_LE(saved.at("host.example").timestamp, Now());

  DnsCache other;
  EXPECT_TRUE(other.Init(path_, 0, 0));
  EXPECT_EQ(FailIn(other, "host.example"), Ips{"192.0.2.7"});
  EXPECT_EQ(FailIn(other, "unknown.example"), Ips{});

  Succeed("host.example", "2001:db8::1");
  EXPECT_EQ(Fail("host.example"), Ips{"2001:db8::1"}) << "the last answer counts";
  EXPECT_EQ(ParseDnsRecords(FileText()).size(), 1u);
  EXPECT_EQ(ParseDnsRecords(FileText()).at("host.example").ips, Ips{"2001:db8::1"}) << "and is saved at once";
}

TEST_F(DnsCacheTest, AnAnswerFromTheCacheIsFitForConnect) {
  cache_.Init(&storage_, 0, 0);
  storage_.text_ = Text("host", {"127.0.0.1", "::1"}, 1);
  addrinfo hints{};
  hints.ai_family = AF_INET6;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* list = nullptr;
  ASSERT_EQ(cache_.getaddrinfo_local("host", "5353", &hints, &list, EAI_AGAIN), 0);
  EXPECT_EQ(list->ai_socktype, SOCK_DGRAM);
  EXPECT_EQ(reinterpret_cast<const sockaddr_in6*>(list->ai_addr)->sin6_port, htons(5353));
  EXPECT_EQ(list->ai_next, nullptr);  // the list is still out when the cache goes

  list = nullptr;
  hints.ai_socktype = SOCK_STREAM;
  EXPECT_EQ(cache_.getaddrinfo_local("host", "no-such-service", &hints, &list, EAI_AGAIN), EAI_AGAIN);
  EXPECT_EQ(list, nullptr);
}

TEST_F(DnsCacheTest, WhatCannotBeAnsweredKeepsTheResolversCode) {
  addrinfo* list = nullptr;
  storage_.text_ = Text("host", {"1.2.3.4"}, 1);
  EXPECT_EQ(Fail("host"), Ips{}) << "not enabled yet";
  EXPECT_FALSE(cache_.Init("", 0, 0));
  EXPECT_FALSE(cache_.Init(static_cast<DnsCacheStorage*>(nullptr), 0, 0));
  EXPECT_EQ(Fail("host"), Ips{}) << "still not";

  EXPECT_TRUE(cache_.Init(&storage_, 0, 0));
  errno = ENOMSG;
  EXPECT_EQ(cache_.getaddrinfo_local("unknown", nullptr, nullptr, &list, EAI_SYSTEM), EAI_SYSTEM);
  EXPECT_EQ(errno, ENOMSG) << "it explains EAI_SYSTEM";
  EXPECT_EQ(cache_.getaddrinfo_local("host", nullptr, nullptr, nullptr, EAI_FAIL), EAI_FAIL);
  EXPECT_EQ(cache_.getaddrinfo_local(nullptr, "22", nullptr, &list, EAI_FAIL), EAI_FAIL);
  const auto live = LiveAnswer("127.0.0.1");
  list = live.get();
  EXPECT_EQ(cache_.getaddrinfo_local(nullptr, "22", nullptr, &list, 0), 0) << "nothing to remember";
  EXPECT_EQ(ParseDnsRecords(storage_.text_).size(), 1u);
  EXPECT_EQ(Fail("host"), Ips{"1.2.3.4"});
}

TEST_F(DnsCacheTest, AnOldRecordIsPrunedOnlyAmongMoreThanTwoHundred) {
  const std::uint32_t now = Now();
  for (const int extra : {0, 1}) {
    for (const unsigned max_age : {0u, 1000u}) {
      DnsRecords records;
      const auto add = [&](const std::string& name, std::uint32_t stamp) {
        records[name] = {name, {"1.1.1.1"}, stamp};
      };
      add("old", now - 2000);
      add("future", now + 1000);
      for (int i = 0; i < 198 + extra; ++i) add("host" + std::to_string(i), now - 100);
      storage_.text_ = FormatDnsRecords(records);
      DnsCache cache;
      cache.Init(&storage_, max_age, 0);
      const bool pruned = extra == 1 && max_age != 0;
      EXPECT_EQ(FailIn(cache, "old").empty(), pruned) << extra << " " << max_age;
      EXPECT_EQ(FailIn(cache, "future").empty(), pruned) << extra << " " << max_age;
      EXPECT_EQ(FailIn(cache, "host0").empty(), false);
    }
  }
}

TEST_F(DnsCacheTest, WhatCannotBeReadOrSavedChangesNoResult) {
  cache_.Init(path_, 0, 0);
  std::string text = Text("host", {"1.2.3.4"}, 1);
  text.resize(0x500000, ' ');
  SetFileText(text + " ");
  EXPECT_EQ(Fail("host"), Ips{}) << "too long";
  SetFileText(text);
  EXPECT_EQ(Fail("host"), Ips{"1.2.3.4"});

  cache_.Init(&storage_, 0, 0);
  storage_.text_ = Text("kept", {"1.1.1.1"}, 1);
  EXPECT_EQ(Fail("kept"), Ips{"1.1.1.1"});
  storage_.writable_ = false;
  Succeed("kept", "2.2.2.2");
  EXPECT_EQ(Fail("unknown"), Ips{}) << "this reads the old text again";
  EXPECT_EQ(Fail("kept"), Ips{"2.2.2.2"});
  storage_.text_ = storage_.text_.substr(0, storage_.text_.size() / 2);  // cut off half-way
  storage_.writable_ = true;
  Succeed("new", "3.3.3.3");
  EXPECT_EQ(ParseDnsRecords(storage_.text_).at("kept").ips, Ips{"2.2.2.2"});

  storage_.throws_ = true;
  EXPECT_EQ(Fail("other"), Ips{});
  Succeed("host", "5.6.7.8");
}

// A name that no resolver knows; it fails without a packet, because the label is too long for one. The cache is
// the process's and forgets nothing, so each name is new.
std::string UnknownName() {
  static int count = 0;
  return std::string(70, 'x') + std::to_string(++count) + ".invalid";
}

// The singleton and the system's resolver. Everything that has to do with them is here.
class DnsCacheSystemTest : public DnsCacheTest {
 protected:
  DnsCacheSystemTest() { dnscache_init(&storage_, 0, 0); }
  ~DnsCacheSystemTest() override { dnscache_init(static_cast<DnsCacheStorage*>(nullptr), 0, 0); }
};

TEST_F(DnsCacheSystemTest, LooksUpLiveRemembersAndFallsBack) {
  for (const char* name : {"127.0.0.1", "::1", "localhost"}) {
    addrinfo* list = nullptr;
    ASSERT_EQ(dnscache_getaddrinfo(name, "22", nullptr, &list), 0) << name;
    EXPECT_EQ(ParseDnsRecords(storage_.text_).count(name), 1u) << storage_.text_;
    dnscache_freeaddrinfo(list);

    list = nullptr;
    ASSERT_EQ(dnscache_getaddrinfo_local(name, "22", nullptr, &list, EAI_AGAIN), 0) << "the resolver is down";
    EXPECT_EQ(reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_port, htons(22));
    dnscache_freeaddrinfo(list);
  }
  addrinfo* list = nullptr;
  const std::string unknown = UnknownName();
  const int code = getaddrinfo(unknown.c_str(), nullptr, nullptr, &list);
  EXPECT_NE(code, 0);
  EXPECT_EQ(dnscache_getaddrinfo(unknown.c_str(), nullptr, nullptr, &list), code);
}

}  // namespace
