// ExitInstance at bad moments. Each case ends in the fixture's check that no thread, descriptor or object is
// left.
#include <gtest/gtest.h>

#include <string>

#include "support/forwarding.h"

namespace {

using gxtest::ConnectionType;
using gxtest::Encode;

class ShutdownTest : public gxtest::ForwardingTest {};

TEST_F(ShutdownTest, WhileIdle) {
  for (int round = 0; round < 50; ++round) Start({});
}

TEST_F(ShutdownTest, InsideAFrame) {
  const std::string wire = Encode({ConnectionType::Data, 1, std::string(20, 'x')});
  for (std::size_t cut = 1; cut < wire.size(); ++cut) {
    Start({});
    stream_->Send(wire.substr(0, cut));
    ASSERT_TRUE(stream_->WaitUntilRead());
    Stop();
  }
}

// Released without ExitInstance: the stream is not closed first, so its end has to come from the host.
TEST_F(ShutdownTest, WithoutExitInstance) {
  Connection connection = Connect();
  stream_->End();
  client_ = nullptr;
  EXPECT_TRUE(connection.local.WaitForEnd());
  EXPECT_FALSE(stream_->IsClosed());
}

}  // namespace
