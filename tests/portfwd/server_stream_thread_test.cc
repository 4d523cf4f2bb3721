#include "portfwd/server_stream_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/far_listener.h"
#include "support/forwarding.h"

namespace {

using gxtest::Answer;
using gxtest::ConnectionType;
using gxtest::Encode;
using gxtest::FarListener;
using gxtest::TcpClient;
using testing::ElementsAre;

class ServerStreamThreadTest : public gxtest::ForwardingTest {
 protected:
  void SetUp() override {
    ForwardingTest::SetUp();
    client_->SetListener(listener_.get());
    client_->SetListener(nullptr);  // is ignored
  }

  const CRefObj<FarListener> listener_{new FarListener};
};

TEST_F(ServerStreamThreadTest, TellsOfWellFormedTestResponses) {
  stream_->Send(Answer(7, "no"));
  stream_->Send({ConnectionType::TestRespond, 0, ""});
  stream_->Send({ConnectionType::TestRespond, 0, "1234567"});
  stream_->Send(Answer(0, ""));
  EXPECT_THAT(listener_->WaitFor(2), ElementsAre("fails no", "works "));
}

TEST_F(ServerStreamThreadTest, ChannelListOpensPorts) {
  stream_->Send(
      {ConnectionType::ChannelList, 0, "name=b&addr=x%3A1;name=a&addr=y%3A2;" + std::string("\0tail", 5)});
  stream_->Send({ConnectionType::ChannelList, 0, ""});
  EXPECT_THAT(listener_->WaitFor(2), ElementsAre("list name=b&addr=x%3A1;name=a&addr=y%3A2;", "list "));
  ASSERT_EQ(client_->GetChannelsCount(), 3U);
  EXPECT_STREQ(client_->GetChannel(1)->get_Name(), "a");
  EXPECT_STREQ(client_->GetChannel(2)->get_Name(), "b");
  const TcpClient local(client_->GetChannel(1)->get_LocalAddress());
  const auto connect = stream_->Receive(ConnectionType::Connect);
  ASSERT_TRUE(connect);
  EXPECT_EQ(connect->payload, "y:2");
}

// The end of the stream, wherever it falls, ends the reader and nothing else.
TEST_F(ServerStreamThreadTest, EndOfTheStreamLeavesConnectionsOpen) {
  const std::string wire = Encode({ConnectionType{0}, 0, "1234"});
  for (std::size_t end = 0; end <= wire.size(); ++end) {
    Start({});
    Connection connection = Connect();
    stream_->Send(wire.substr(0, end));
    stream_->End();
    connection.local.Send("still sent");
    EXPECT_EQ(ReceiveData(connection.id, 10), "still sent") << end;
  }
}

}  // namespace
