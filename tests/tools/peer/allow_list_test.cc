// fuzz_allow_list tests the spelling of entries and targets.
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

bool Passes(const AllowList& list, std::string_view text) { return list.Permits(*ParseDestination(text)); }

TEST(AllowListTest, DefaultAndAny) {
  EXPECT_TRUE(Passes(AllowList::Default(), "127.0.0.1:22"));
  EXPECT_TRUE(Passes(AllowList::Default(), "[::1]:22"));
  EXPECT_TRUE(Passes(AllowList::Default(), "localhost:22"));
  EXPECT_FALSE(Passes(AllowList::Default(), "127.0.0.1:80"));
  EXPECT_TRUE(Passes(AllowList::Any(), "10.1.2.3:4"));
  for (const AllowList& list : {AllowList::Any(), AllowList::Default(), ListOf({"*:22", "unix:*"})}) {
    EXPECT_FALSE(Passes(list, "unix:/run/docker.sock")) << "a socket has to be named";
  }
  AllowList list;
  std::string why;
  for (const char* entry :
       {"*:*", "127.0.0.*:22", "127.0.0.1:22,80", "db.example.:22", "0xa:22", "unix:/run/.."}) {
    EXPECT_FALSE(list.Add(entry, &why)) << entry;
  }
}

// A permitted name must not lead to services of this computer that are not permitted.
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

}  // namespace
}  // namespace gxtool
