#include "portfwd/port_forward_client.h"

#include "portfwd/channel_list.h"
#include "support/forwarding.h"
#include "support/test.h"

namespace gxtest {
namespace {

using testing::Contains;
using testing::Pair;

class PortForwardClientTest : public ForwardingTest {};

TEST_F(PortForwardClientTest, ChannelListFollowsEveryChange) {
  const std::string first = "name=ssh&pro=&addr=10%2E0%2E0%2E1%3A22;";
  const auto expect_list = [&](const std::string& list) {
    EXPECT_EQ(stream_->Receive(), (Frame{ConnectionType::ChannelList, 0, list}));
  };
  EXPECT_THAT(log_.Lines(), Contains(Pair(kGXModLogInfo, "[portfwd] channel list: " + first)));
  IChannelRaw* second = client_->NewChannel("x", "tcp", "a:1");
  ASSERT_NE(second, nullptr);
  expect_list(first + "name=x&pro=tcp&addr=a%3A1;");
  EXPECT_EQ(client_->GetChannel2(second->get_Index()), second);
  EXPECT_EQ(client_->DeleteChannel2(second->get_Index()), 0U);
  expect_list(first);
  EXPECT_EQ(client_->GetChannel(0)->Erase(), 0U);
  expect_list("");
  EXPECT_EQ(client_->GetChannelsCount(), 0U);
  EXPECT_FALSE(AnyPortListens());
  EXPECT_EQ(client_->TestChannel("", "", "works?"), 0U);
  EXPECT_EQ(stream_->Receive(), (Frame{ConnectionType::TestChannel, 0, "works?"}));
}

// Neither a stop nor a change of sharing ends connections. A channel may live longer than its client, and then
// does nothing.
TEST_F(PortForwardClientTest, AChannelStopsAndMovesToAFreshPort) {
  const CRefObj<IChannelRaw> channel(client_->GetChannel(0));
  Connection open = Connect();
  const auto listens_elsewhere = [&] {
    const int port = std::stoi(std::string(channel->get_LocalAddress()).substr(10));
    return !gxbase::ScopedDescriptor(CSockAcceptor::ListenSock("127.0.0.2", port, false));
  };
  EXPECT_TRUE(channel->Run());
  EXPECT_EQ(channel->get_LocalAddress(), address_) << "it runs already";
  EXPECT_FALSE(listens_elsewhere());
  EXPECT_TRUE(channel->Stop());
  EXPECT_FALSE(AnyPortListens());
  EXPECT_TRUE(open.local.Send("still here"));
  EXPECT_EQ(ReceiveData(open.id, 10), "still here");

  EXPECT_TRUE(channel->Run());
  EXPECT_TRUE(TcpClient(channel->get_LocalAddress()).IsConnected());
  channel->put_AllowShare(1);
  const std::string shared = channel->get_LocalAddress();
  EXPECT_TRUE(TcpClient(shared).IsConnected()) << "listens at once";
  EXPECT_TRUE(listens_elsewhere());

  Stop();
  EXPECT_FALSE(AnyPortListens());
  EXPECT_FALSE(channel->Run());
  EXPECT_EQ(channel->Erase(), 0U);
}

// After ExitInstance nothing starts until the next InitInstance.
TEST_F(PortForwardClientTest, StartsAfreshAfterExit) {
  const auto bare = CreatePortForwardClient();
  EXPECT_EQ(bare->Run(), kGXModUnexpected) << "without a stream";
  EXPECT_TRUE(TcpClient(bare->NewChannel("", "", "h:1")->get_LocalAddress()).WaitForEnd());
  Connection before = Connect();
  const CRefObj<MyHandler> kept = client_->FindStream(before.id);
  ASSERT_TRUE(kept);
  const CRefObj<CChannelRaw> channel(static_cast<CChannelRaw*>(client_->GetChannel(0)));
  client_->ExitInstance();
  EXPECT_TRUE(kept->stream()->IsClosed());
  EXPECT_FALSE(client_->FindStream(before.id));

  const CRefObj<CSockStream> late(new CSockStream(0));
  late->SetSocket(before.local.Release(), true);
  client_->OnAccept(late.get(), channel.get());
  EXPECT_TRUE(late->IsClosed()) << "accepted too late";
  EXPECT_EQ(client_->NewChannel("late", "", "h:1"), nullptr);
  EXPECT_EQ(client_->Run(), kGXModUnexpected);
  client_->OnReceiveChannelsList("name=a&addr=h%3A1;");
  EXPECT_EQ(client_->GetChannelsCount(), 0U);

  RunOnAFreshStream();
  Connection connection = Connect();
  connection.local.Send("again");
  EXPECT_EQ(ReceiveData(connection.id, 5), "again");
}

// The reader and the connections end with their stream.
TEST_F(PortForwardClientTest, AStreamInPlaceOfOneThatRunsStartsAfresh) {
  Connection before = Connect();
  const CRefObj<PluginStream> first = stream_;
  RunOnAFreshStream();
  EXPECT_TRUE(first->IsClosed());
  EXPECT_TRUE(before.local.WaitForEnd());
  Connection after = Connect();
}

// Released without ExitInstance the client does not close the stream; the host ends it.
TEST_F(PortForwardClientTest, ReleasedWithoutExitInstance) {
  Connection connection = Connect();
  stream_->End();
  client_ = nullptr;
  EXPECT_TRUE(connection.local.WaitForEnd());
  EXPECT_FALSE(stream_->IsClosed());
}

TEST(ChannelListTest, ReadsAndWrites) {
  const std::pair<const char*, const char*> cases[] = {
      {"name=b&pro=tcp&addr=x;name=a&pro=tcp&addr=y;", "name=a&pro=tcp&addr=y;name=b&pro=tcp&addr=x;"},
      {"name=%4&pro=09AZaz&addr=a+b%20c", "name=&pro=09AZaz&addr=a%20b%20c;"},
      {"name=%4G&pro=%GG&addr=%e4", "name=%04&pro=&addr=%E4;"},  // numbers as std::istream reads them
      {" name = a ;; bare", "name=&pro=&addr=;name=&pro=&addr=;name=%20a%20&pro=&addr=;"},
      {"name=first&name=second", "name=first&pro=&addr=;"},
  };
  for (const auto& [text, list] : cases) EXPECT_EQ(FormatChannelList(ParseChannelList(text)), list) << text;
  EXPECT_EQ(ParseChannelList("name=a")[0].name, "a") << "no NUL follows";
  EXPECT_EQ(FormatChannelList({{"ssh", "tcp", "127.0.0.1:22"}, {"a;b", "", "&="}}),
            "name=ssh&pro=tcp&addr=127%2E0%2E0%2E1%3A22;name=a%3Bb&pro=&addr=%26%3D;");
}

}  // namespace
}  // namespace gxtest
