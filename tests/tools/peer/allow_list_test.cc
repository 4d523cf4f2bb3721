#include "peer/allow_list.h"

#include <gtest/gtest.h>

namespace gxtool {
namespace {

AllowList ListOf(std::initializer_list<const char*> entries) {
  AllowList list;
  for (const char* entry : entries) {
    std::string why;
    EXPECT_TRUE(list.Add(entry, &why)) << entry << ": " << why;
  }
  return list;
}

bool Passes(const AllowList& list, std::string_view text) {
  const auto target = ParseDestination(text);
  return target && list.Permits(*target);
}

TEST(AllowListTest, PermitsWhatWasNamedHoweverItIsSpelled) {
  const AllowList list = ListOf({"127.0.0.1:22", "[::1]:22", "DB.example:5432", "*:80", "10.0.0.1:*"});
  for (const char* text : {"127.0.0.1:22", "[::1]:22", "[0::0:1]:22", "db.EXAMPLE:5432", "anything:80",
                           "1.2.3.4.example:80", "a-b_c.example:80", "[fe80::1]:80", "[::127.0.0.1]:80",
                           "10.0.0.1:1", "10.0.0.1:65535", "localhost:22", "LOCALHOST:80"}) {
    EXPECT_TRUE(Passes(list, text)) << text;
  }
  for (const char* text :
       {"127.0.0.1:23", "127.0.0.2:22", "localhost:23", "localhost.x:22", "[::1]:23", "[::]:22", "0.0.0.0:22",
        "[::127.0.0.1]:22", "db.example:22", "x.db.example:5432", "db:5432", "anything:81", "10.0.0.2:1"}) {
    EXPECT_FALSE(Passes(list, text)) << text;
  }
}

TEST(AllowListTest, DefaultAndAny) {
  EXPECT_TRUE(Passes(AllowList::Default(), "127.0.0.1:22"));
  EXPECT_TRUE(Passes(AllowList::Default(), "[::1]:22"));
  EXPECT_TRUE(Passes(AllowList::Default(), "localhost:22"));
  EXPECT_TRUE(Passes(ListOf({"localhost:80"}), "[::1]:80"));
  EXPECT_FALSE(Passes(AllowList::Default(), "127.0.0.1:80"));
  EXPECT_TRUE(Passes(AllowList::Any(), "10.1.2.3:4"));
  EXPECT_FALSE(Passes(AllowList(), "127.0.0.1:22"));
}

TEST(AllowListTest, UnixSocketsAreNamedByTheirWholePathAndByNothingElse) {
  using namespace std::string_view_literals;
  const AllowList list = ListOf({"unix:/run/docker.sock", "unix:22"});
  EXPECT_TRUE(Passes(list, "unix:/run/docker.sock"));
  EXPECT_TRUE(Passes(list, "unix:22")) << "a host may have that name";
  for (const std::string_view text :
       {"unix:/run"sv, "unix:/run/docker.sock2"sv, "unix:/run/docker.soc"sv, "unix:/RUN/docker.sock"sv,
        "unix:run/docker.sock"sv, "unix:/run//docker.sock"sv, "unix://run/docker.sock"sv,
        "unix:/run/./docker.sock"sv, "unix:/run/x/../docker.sock"sv, "unix:/run/docker.sock/"sv,
        "unix:/run/docker.sock/."sv, "unix:/run/docker.sock\0"sv, "UNIX:/run/docker.sock"sv,
        "/run/docker.sock"sv, "unix:unix:/run/docker.sock"sv}) {
    EXPECT_FALSE(Passes(list, text)) << text;
  }
  for (const AllowList& other : {AllowList::Any(), AllowList::Default(), ListOf({"*:22", "unix:*"})}) {
    EXPECT_FALSE(Passes(other, "unix:/run/docker.sock"));
  }
  AllowList none;
  for (const std::string& path :
       {std::string("*"), std::string("/run/.."), std::string("/"), '/' + std::string(200, 'x')}) {
    std::string why;
    EXPECT_FALSE(none.Add(path == "*" ? "unix:/run/../x" : "unix:" + path, &why)) << path;
    EXPECT_FALSE(why.empty());
  }
}

// A name that was permitted may not lead to services of this computer that were not.
TEST(AllowListTest, JudgesWhereNamesLead) {
  const AllowList list = ListOf({"db.example:22", "127.0.0.1:22", "localhost:80"});
  const HostPort name{"db.example", 22};
  for (const char* address : {"10.0.0.1", "192.168.1.1", "8.8.8.8", "2001:db8::1", "127.0.0.1"}) {
    EXPECT_TRUE(list.PermitsAddress(name, address)) << address;
  }
  for (const char* address :
       {"127.0.0.2", "0.0.0.0", "0.1.2.3", "169.254.169.254", "224.0.0.1", "255.255.255.255", "::", "::1",
        "fe80::1", "fe80::1%lo", "ff02::1", "::ffff:10.0.0.1", "::10.0.0.1", ""}) {
    EXPECT_FALSE(list.PermitsAddress(name, address)) << address;
  }
  EXPECT_TRUE(list.PermitsAddress({"localhost", 80}, "127.0.0.1"));
  EXPECT_TRUE(list.PermitsAddress({"localhost", 80}, "::1"));
  EXPECT_FALSE(list.PermitsAddress({"localhost", 22}, "::1"));
  EXPECT_TRUE(AllowList::Any().PermitsAddress(name, "127.0.0.2"));
}

TEST(AllowListTest, RefusesEntriesThatAreNone) {
  for (const char* entry : {"", "*", "*:*", "[*]:22", "127.0.0.*:22", "*.example:22", "127.0.0.1:22,80",
                            "127.1:22", "127.0.0.1:022", "[::ffff:127.0.0.1]:22", "::1:22", "host"}) {
    AllowList list;
    std::string why;
    EXPECT_FALSE(list.Add(entry, &why)) << entry;
    EXPECT_FALSE(why.empty()) << entry;
  }
}

// Each of these some resolver or C library would take for the target that is permitted.
TEST(AllowListTest, NoOtherSpellingOfATargetPasses) {
  const AllowList list = ListOf({"127.0.0.1:22"});
  for (const char* text :
       {"127.1:22", "127.0.0.1.:22", "127.0.0.01:22", "0x7f.1:22", "2130706433:22", "127.0.0.1 :22",
        "127.0.0.1%lo:22", "user@127.0.0.1:22", "localhost.:22", "[::ffff:127.0.0.1]:22", "[127.0.0.1]:22",
        "127.0.0.1:022", "127.0.0.1:+22", "127.0.0.1:65558", "127.0.0.1:ssh", "127.0.0.1:*"}) {
    EXPECT_FALSE(Passes(list, text)) << text;
  }
  EXPECT_FALSE(ParseHostPort(std::string("127.0.0.1:22\0", 13)));
  EXPECT_FALSE(ParseHostPort("db.example.:22"));
}

}  // namespace
}  // namespace gxtool
