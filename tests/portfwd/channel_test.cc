#include "portfwd/channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/forwarding.h"

namespace {

using gxtest::ConnectionType;
using gxtest::TcpClient;
using testing::StartsWith;

class ChannelTest : public gxtest::ForwardingTest {};

TEST_F(ChannelTest, ChangeOfSharingMovesToAFreshPort) {
  IChannelRaw* channel = client_->GetChannel(0);
  channel->put_AllowShare(1);
  const std::string shared = channel->get_LocalAddress();
  EXPECT_THAT(shared, StartsWith("127.0.0.1:"));
  EXPECT_NE(shared, address_);
  EXPECT_FALSE(TcpClient(address_).IsConnected()) << "the port before is closed";
  channel->put_AllowShare(1);
  EXPECT_EQ(channel->get_LocalAddress(), shared) << "no change, no new port";

  const TcpClient local(shared);
  const auto connect = stream_->Receive(ConnectionType::Connect);
  ASSERT_TRUE(connect);
  EXPECT_EQ(connect->payload, "10.0.0.1:22");

  channel->put_AllowShare(0);
  EXPECT_FALSE(TcpClient(shared).IsConnected());
  EXPECT_TRUE(TcpClient(channel->get_LocalAddress()).IsConnected());
}

TEST_F(ChannelTest, StopClosesThePort) {
  IChannelRaw* channel = client_->GetChannel(0);
  Connection open = Connect();
  EXPECT_TRUE(channel->Run());
  EXPECT_EQ(channel->get_LocalAddress(), address_) << "it was running";
  EXPECT_TRUE(channel->Stop());
  EXPECT_FALSE(TcpClient(address_).IsConnected());
  EXPECT_TRUE(open.local.Send("still here"));
  EXPECT_EQ(ReceiveData(open.id, 10), "still here");

  channel->put_AllowShare(1);
  EXPECT_TRUE(TcpClient(channel->get_LocalAddress()).IsConnected()) << "a change of sharing listens at once";
}

// Who keeps a channel longer than its client must not reach the client through it.
TEST_F(ChannelTest, WithoutAClientNothingListens) {
  const CRefObj<IChannelRaw> never_had_one(new CChannelRaw);
  const CRefObj<IChannelRaw> outlives_it(client_->GetChannel(0));
  Stop();
  for (IChannelRaw* channel : {never_had_one.get(), outlives_it.get()}) {
    EXPECT_FALSE(channel->Run());
    channel->put_AllowShare(1);
    EXPECT_EQ(channel->get_AllowShare(), 1);
    EXPECT_EQ(channel->Erase(), 0U);
    channel->put_Name(nullptr);
    EXPECT_STREQ(channel->get_Name(), "");
  }
  EXPECT_STREQ(never_had_one->get_LocalAddress(), "");
  EXPECT_FALSE(TcpClient(address_).IsConnected());
}

}  // namespace
