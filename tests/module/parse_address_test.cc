#include "module/parse_address.h"

#include <gtest/gtest.h>

namespace {

TEST(ParseAddressTest, SplitsAtTheFirstColon) {
  const struct {
    const char* address;
    bool splits;
    const char* host;
    const char* port;
  } cases[] = {
      {"127.0.0.1:22", true, "127.0.0.1", "22"}, {"127.0.0.1:", true, "127.0.0.1", ""}, {":22", true, "", "22"},
      {"[::1]:22", true, "[", ":1]:22"},         {"127.0.0.1", false, "", ""},          {"", false, "", ""},
  };
  for (const auto& c : cases) {
    std::string host;
    std::string port;
    EXPECT_EQ(ParseAddress(c.address, host, port), c.splits) << c.address;
    EXPECT_EQ(host, c.host) << c.address;
    EXPECT_EQ(port, c.port) << c.address;
  }
}

}  // namespace
