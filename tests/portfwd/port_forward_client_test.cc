#include "portfwd/port_forward_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/forwarding.h"

namespace {

using gxtest::ConnectionType;
using gxtest::Eventually;
using gxtest::Frame;
using gxtest::Pattern;
using gxtest::PluginStream;
using gxtest::TcpClient;
using testing::Contains;
using testing::Pair;

class PortForwardClientTest : public gxtest::ForwardingTest {
 protected:
  void Listens(ConnectionType type, const std::string& payload) {
    const auto frame = stream_->Receive();
    ASSERT_TRUE(frame);
    EXPECT_EQ(*frame, (Frame{type, 0, payload}));
  }
};

TEST_F(PortForwardClientTest, OneConnectionFromConnectToClose) {
  TcpClient local(address_);
  const auto connect = stream_->Receive();
  ASSERT_TRUE(connect);
  EXPECT_EQ(connect->type, ConnectionType::Connect);
  EXPECT_EQ(connect->payload, "10.0.0.1:22");
  EXPECT_NE(connect->id, 0U);

  local.Send("question");
  EXPECT_EQ(ReceiveData(connect->id, 8), "question");
  stream_->Send({ConnectionType::Data, connect->id, "answer"});
  EXPECT_EQ(local.Receive(6), "answer");

  local.Close();
  const auto end = stream_->Receive();
  ASSERT_TRUE(end);
  EXPECT_EQ(*end, (Frame{ConnectionType::Close, connect->id, ""}));
  EXPECT_TRUE(Eventually([&] { return !client_->FindStream(connect->id); }));
}

// No data frame is larger than the first read, and all of them together are what was sent.
TEST_F(PortForwardClientTest, CutsAnUploadIntoReads) {
  Connection connection = Connect();
  const std::string upload = Pattern(1'000'000);
  std::thread sender([&] { connection.local.Send(upload); });
  std::string received;
  std::size_t largest = 0;
  while (received.size() < upload.size()) {
    const auto frame = stream_->Receive();
    if (!frame) break;
    received += frame->payload;
    largest = std::max(largest, frame->payload.size());
  }
  sender.join();
  EXPECT_TRUE(received == upload);
  EXPECT_EQ(largest, 4096U);
}

TEST_F(PortForwardClientTest, ChannelListFollowsEveryChange) {
  EXPECT_THAT(log_.Lines(),
              Contains(Pair(kGXModLogInfo, "[portfwd] channel list: name=ssh&pro=&addr=10%2E0%2E0%2E1%3A22;")));
  IChannelRaw* second = client_->NewChannel("x", "tcp", "a:1");
  ASSERT_NE(second, nullptr);
  Listens(ConnectionType::ChannelList, "name=ssh&pro=&addr=10%2E0%2E0%2E1%3A22;name=x&pro=tcp&addr=a%3A1;");
  const std::uint32_t index = second->get_Index();
  EXPECT_EQ(client_->GetChannel2(index), second);
  EXPECT_EQ(client_->GetChannel(1), second);
  EXPECT_EQ(client_->GetChannel(2), nullptr);

  EXPECT_EQ(client_->DeleteChannel2(index + 1000), 0U);
  Listens(ConnectionType::ChannelList, "name=ssh&pro=&addr=10%2E0%2E0%2E1%3A22;name=x&pro=tcp&addr=a%3A1;");
  EXPECT_EQ(second->Erase(), 0U);
  Listens(ConnectionType::ChannelList, "name=ssh&pro=&addr=10%2E0%2E0%2E1%3A22;");
  EXPECT_EQ(client_->DeleteChannel2(client_->GetChannel(0)->get_Index()), 0U);
  Listens(ConnectionType::ChannelList, "");
  EXPECT_EQ(client_->GetChannelsCount(), 0U);
  EXPECT_FALSE(TcpClient(address_).IsConnected());
}

TEST_F(PortForwardClientTest, ResultCodes) {
  const CRefObj<IPortForwardClientRaw> client = CreatePortForwardClient();
  EXPECT_EQ(client->Run(), kGXModUnexpected);
  EXPECT_EQ(client->InitInstance(nullptr), kGXModInvalidArgument);
  EXPECT_EQ(client->Run(), kGXModUnexpected);
  EXPECT_EQ(client->ExitInstance(), kGXModOk);
}

// A connection without a plugin stream is ended, not left hanging.
TEST_F(PortForwardClientTest, ConnectionWithoutAStreamIsEnded) {
  client_->InitInstance(nullptr);
  TcpClient local(address_);
  EXPECT_TRUE(local.WaitForEnd());
}

// Stopped is stopped, until InitInstance says otherwise.
TEST_F(PortForwardClientTest, StartsAfreshAfterExit) {
  for (int round = 0; round < 3; ++round) {
    client_->ExitInstance();
    EXPECT_FALSE(TcpClient(address_).IsConnected());
    EXPECT_EQ(client_->NewChannel("late", "", "h:1"), nullptr);
    EXPECT_EQ(client_->Run(), kGXModUnexpected);
    client_->OnReceiveChannelsList("name=a&addr=h%3A1;");
    EXPECT_EQ(client_->GetChannelsCount(), 0U);

    stream_ = CRefObj<PluginStream>(new PluginStream);
    ASSERT_EQ(client_->InitInstance(stream_.get()), kGXModOk);
    ASSERT_EQ(client_->Run(), kGXModOk);
    IChannelRaw* channel = client_->NewChannel("ssh", "", "10.0.0.1:22");
    ASSERT_NE(channel, nullptr);
    address_ = channel->get_LocalAddress();
    ASSERT_TRUE(stream_->Receive(ConnectionType::ChannelList));
    Connection connection = Connect();
    connection.local.Send("again");
    EXPECT_EQ(ReceiveData(connection.id, 5), "again");
  }
}

}  // namespace
