#include "portfwd/server_stream_thread.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "support/far_listener.h"
#include "support/forwarding.h"
#include "support/test.h"

namespace {

// What happens before the process next accepts a connection; with the listening socket. Threads accept, and the
// test sets it.
std::mutex before_accept_mutex;
std::function<void(int)> before_accept;

}  // namespace

extern "C" int accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  std::function<void(int)> now;
  {
    const std::lock_guard lock(before_accept_mutex);
    now = std::exchange(before_accept, nullptr);
  }
  if (now) now(listener);
  return static_cast<int>(syscall(SYS_accept4, listener, address, length, flags));
}

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

// A client that gets in between listen and the first accept: the reader must not write its Connect, because the
// far side may be waiting for the reader.
TEST_F(ServerStreamThreadTest, OpensPortsWithoutWaitingForTheFarSide) {
  Connection busy = Connect();
  stream_->Behave({.capacity = 1});
  busy.local.Send("blocks");
  ASSERT_TRUE(stream_->WaitUntilWriteBlocks());
  std::promise<TcpClient> early;
  {
    const std::lock_guard lock(before_accept_mutex);
    before_accept = [&](int listener) {
      sockaddr_in address{};
      socklen_t length = sizeof address;
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
      early.set_value(TcpClient(ntohs(address.sin_port)));
    };
  }
  stream_->Send({ConnectionType::ChannelList, 0, "name=a&addr=y%3A2;"});
  stream_->Send({ConnectionType::Data, busy.id, "still read"});
  EXPECT_EQ(busy.local.Receive(10), "still read");
  const TcpClient client = early.get_future().get();
  EXPECT_TRUE(client.IsConnected());
  stream_->Behave({});
  const auto connect = stream_->Receive(ConnectionType::Connect);
  ASSERT_TRUE(connect);
  EXPECT_EQ(connect->payload, "y:2");
}

// However many there are, one is enough.
TEST_F(ServerStreamThreadTest, ClosesBehindDataThatWaitsCostNothing) {
  Connection stalled = Connect();
  const std::string block(64 * 1024, 'x');
  while (client_->FindStream(stalled.id)->Owed() < 4 * block.size()) {
    stream_->Send({ConnectionType::Data, stalled.id, block});
    ASSERT_TRUE(stream_->WaitUntilRead());
  }
  stream_->Send({ConnectionType::Close, stalled.id, ""});
  ASSERT_TRUE(stream_->WaitUntilRead());
  std::string closes;
  for (int i = 0; i < 10'000; ++i) closes += Encode({ConnectionType::Close, stalled.id, ""});
  const std::size_t heap = gxtest::HeapBytes();
  stream_->Send(closes);
  stream_->Send({ConnectionType::Data, stalled.id, block});
  stream_->Send(Answer(0, "read"));
  EXPECT_THAT(listener_->WaitFor(1), ElementsAre("works read"));
  EXPECT_LE(gxtest::HeapBytes(), heap + 2 * closes.size()) << "what has come is also in the hands of the test";
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
    EXPECT_EQ(stream_->ReadsBehindTheEnd(), 0U) << end;
  }
}

}  // namespace
