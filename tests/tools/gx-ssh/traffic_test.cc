#include "gx-ssh/traffic.h"

#include <gtest/gtest.h>

namespace gxtool {
namespace {

using gxmod::ConnectionType;

// The bytes of late frames, which the module drops as well, belong to nobody.
TEST(TrafficTest, CountsWhatBelongsToOpenConnections) {
  Traffic traffic;
  EXPECT_TRUE(traffic.Count({12, 1, ConnectionType::Connect}, true)->opened);
  EXPECT_TRUE(traffic.Count({12, 2, ConnectionType::Connect}, true)->opened);
  EXPECT_FALSE(traffic.Count({12, 3, ConnectionType::Connect}, false)) << "the far side opens nothing";
  EXPECT_FALSE(traffic.Count({100, 1, ConnectionType::Data}, true));
  EXPECT_FALSE(traffic.Count({50, 1, ConnectionType::Data}, false));
  const auto closed = traffic.Count({0, 1, ConnectionType::Close}, false);
  ASSERT_TRUE(closed && !closed->opened);
  EXPECT_EQ(closed->connection.sent, 100u);
  EXPECT_EQ(closed->connection.received, 50u);
  EXPECT_FALSE(traffic.Count({0, 1, ConnectionType::Close}, true)) << "the answer to a close is none";
  EXPECT_FALSE(traffic.Count({100, 1, ConnectionType::Data}, false));

  const Traffic::Totals totals = traffic.totals();
  EXPECT_EQ(totals.connections, 2u);
  EXPECT_EQ(totals.open, 1u);
  EXPECT_EQ(totals.received, 50u);
  EXPECT_EQ(traffic.CloseAll().size(), 1u);
  EXPECT_TRUE(traffic.open().empty());
}

}  // namespace
}  // namespace gxtool
