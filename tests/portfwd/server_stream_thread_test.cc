#include "portfwd/server_stream_thread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "support/far_listener.h"
#include "support/forwarding.h"
#include "support/test.h"

namespace gxtest {

// When set, the next accept of the process first connects a client to the port and hands it over here.
static std::atomic<std::promise<TcpClient>*> early_client{nullptr};

extern "C" int accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  if (auto* client = early_client.exchange(nullptr)) {
    sockaddr_in own{};
    socklen_t own_length = sizeof own;
    getsockname(listener, reinterpret_cast<sockaddr*>(&own), &own_length);
    client->set_value(TcpClient(ntohs(own.sin_port)));
  }
  return static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
}

namespace {

class ServerStreamThreadTest : public ForwardingTest {};

// The new port has a client before the first accept. Its Connect must be written by another thread than the
// reader, since the far side may take nothing until the reader has read.
TEST_F(ServerStreamThreadTest, OpensPortsWithoutWaitingForTheFarSide) {
  Connection busy = Connect();
  stream_->Behave({.capacity = 1});
  busy.local.Send("blocks");
  ASSERT_TRUE(stream_->WaitUntilWriteBlocks());
  std::promise<TcpClient> early;
  early_client = &early;
  stream_->Send({ConnectionType::ChannelList, 0, "name=a&addr=y%3A2;"});
  stream_->Send({ConnectionType::Data, busy.id, "still read"});
  EXPECT_EQ(busy.local.Receive(10), "still read");
  const auto client = early.get_future().get();
  EXPECT_TRUE(client.IsConnected());
  stream_->Behave({});
  const auto connect = stream_->Receive(ConnectionType::Connect);
  ASSERT_TRUE(connect);
  EXPECT_EQ(connect->payload, "y:2");
}

// Thousands of Close frames for one connection take no memory.
TEST_F(ServerStreamThreadTest, ClosesBehindDataThatWaitsCostNothing) {
  const CRefObj<FarListener> listener(new FarListener);
  client_->SetListener(listener.get());
  client_->SetListener(nullptr);  // is ignored
  Connection stalled = Connect();
  Fill(stalled, 256 * 1024);
  stream_->Send({ConnectionType::Close, stalled.id, ""});
  ASSERT_TRUE(stream_->WaitUntilRead());
  std::string closes;
  for (int i = 0; i < 10'000; ++i) closes += Encode({ConnectionType::Close, stalled.id, ""});
  const std::size_t heap = HeapBytes();
  stream_->Send(closes);
  stream_->Send({ConnectionType::Data, stalled.id, "dropped"});
  stream_->Send(Answer(0, "read"));
  EXPECT_THAT(listener->WaitFor(1), testing::ElementsAre("works read"));
  EXPECT_LE(HeapBytes(), heap + 2 * closes.size()) << "the test holds the frames, too";
}

// The end of the stream, also inside a frame, ends the reader and nothing else.
TEST_F(ServerStreamThreadTest, EndOfTheStreamLeavesConnectionsOpen) {
  const std::string wire = Encode({ConnectionType{0}, 0, "1234"});
  for (std::size_t end = 0; end <= wire.size(); ++end) {
    Start({});
    Connection connection = Connect();
    stream_->Send(wire.substr(0, end));
    stream_->End();
    connection.local.Send("still sent");
    EXPECT_EQ(ReceiveData(connection.id, 10), "still sent") << end;
    EXPECT_LE(stream_->reads_at_the_end, 1) << end;
  }
}

}  // namespace
}  // namespace gxtest
