#include "portfwd/server_stream_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "support/forwarding.h"

namespace {

using gxtest::ConnectionType;
using gxtest::Encode;
using gxtest::Eventually;
using gxtest::Frame;
using gxtest::Pattern;
using gxtest::TcpClient;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

class Listener final : public IPortForwardClientRaw::IListener, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  void OnChannelsList(const char* text) override { Add(std::string("list ") + text); }
  void OnTestRespond(const char* text, bool ok) override { Add(std::string(ok ? "works " : "fails ") + text); }

  std::vector<std::string> WaitFor(std::size_t count) {
    Eventually([&] {
      const std::lock_guard lock(mutex_);
      return calls_.size() >= count;
    });
    const std::lock_guard lock(mutex_);
    return std::exchange(calls_, {});
  }

 private:
  void Add(std::string call) {
    const std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
  }
  std::mutex mutex_;
  std::vector<std::string> calls_;
};

std::string TestResponse(std::uint32_t status, std::uint16_t offset, std::uint16_t length,
                         const std::string& rest) {
  std::string payload(gxmod::kTestRespondHeaderBytes, '\0');
  gxmod::EncodeTestResponse(status, nullptr, 0, payload.data());
  std::memcpy(&payload[4], &offset, sizeof offset);
  std::memcpy(&payload[6], &length, sizeof length);
  return payload + rest;
}

class ServerStreamThreadTest : public gxtest::ForwardingTest {
 protected:
  void SetUp() override {
    ForwardingTest::SetUp();
    client_->SetListener(listener_.get());
    client_->SetListener(nullptr);  // is ignored
  }

  const CRefObj<Listener> listener_{new Listener};
};

// However the stream cuts the bytes, the same data must arrive and the same connection must end.
TEST_F(ServerStreamThreadTest, FramesSurviveAnyCut) {
  for (std::size_t at_most = 1; at_most <= 40; ++at_most) {
    stream_->Behave({.read_at_most = at_most});
    Connection connection = Connect();
    const std::uint32_t id = connection.id;
    stream_->Send(Encode({ConnectionType::Data, id, "hel"}) + Encode({ConnectionType::Data, id, ""}) +
                  Encode({ConnectionType{7}, id, std::string(100, 'x')}) +
                  Encode({ConnectionType::Data, id + 100, "not for us"}) +
                  Encode({ConnectionType::Close, id + 100, ""}) + Encode({ConnectionType::Data, id, "lo"}) +
                  Encode({ConnectionType::Close, id, ""}) + Encode({ConnectionType::Data, id, "too late"}));
    EXPECT_EQ(connection.local.ReceiveToEnd(), "hello") << at_most;
    ASSERT_TRUE(stream_->Receive(ConnectionType::Close));
  }
}

// Every type with and without a payload, for a known and an unknown id: whatever it does, the next frame is
// right.
TEST_F(ServerStreamThreadTest, EveryTypeLeavesTheNextFrameWhole) {
  const Connection known = Connect();
  for (int type = 0; type < 256; ++type) {
    if (type == 6) continue;  // opens a port for each; has its own test
    for (const std::size_t length : {0U, 1U, 100U}) {
      for (const std::uint32_t id : {known.id, known.id + 1000}) {
        stream_->Send({static_cast<ConnectionType>(type), id, std::string(length, '\1')});
      }
    }
  }
  stream_->Send({ConnectionType::TestRespond, 0, TestResponse(0, 8, 4, "good")});
  EXPECT_THAT(listener_->WaitFor(1), ElementsAre("works good"));
}

TEST_F(ServerStreamThreadTest, TestResponses) {
  const struct {
    std::string payload;
    const char* heard;  // null: dropped
  } cases[] = {
      {TestResponse(0, 8, 0, ""), "works "},
      {TestResponse(7, 10, 2, "..no.."), "fails no"},
      {TestResponse(0, 8, 5, std::string("a\0bcd", 5)), "works a"},
      {TestResponse(0, 0, 8, ""), "works "},
      {TestResponse(0, 8, 1, ""), nullptr},
      {TestResponse(0, 65535, 65535, ""), nullptr},
      {"1234567", nullptr},
      {"", nullptr},
  };
  for (const auto& c : cases) {
    stream_->Send({ConnectionType::TestRespond, 0, c.payload});
    stream_->Send({ConnectionType::TestRespond, 0, TestResponse(0, 8, 4, "next")});
    if (c.heard != nullptr) {
      EXPECT_THAT(listener_->WaitFor(2), ElementsAre(c.heard, "works next"));
    } else {
      EXPECT_THAT(listener_->WaitFor(1), ElementsAre("works next"));
    }
  }
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

// The far side may promise what no machine has.
TEST_F(ServerStreamThreadTest, PromiseOfFourGigabytesCostsNothing) {
  Connection connection = Connect();
  std::string header = Encode({ConnectionType::Data, connection.id, ""});
  std::memset(&header[4], 0xFF, 4);
  stream_->Send(header);
  ASSERT_TRUE(stream_->WaitUntilRead());
  connection.local.Send("works");
  EXPECT_EQ(ReceiveData(connection.id, 5), "works");
}

// A local client that takes nothing makes the far side wait at the mark, and is dropped in the end; the others
// go on.
TEST_F(ServerStreamThreadTest, StalledClientIsDropped) {
  constexpr std::size_t kFrameBytes = 1024 * 1024;
  Start({.high_mark_bytes = 4 * kFrameBytes, .stall_ms = 300});
  Connection stalled = Connect();
  Connection other = Connect();
  const std::string block(kFrameBytes, 'x');
  for (int i = 0; i < 40; ++i) stream_->Send({ConnectionType::Data, stalled.id, block});
  stream_->Send({ConnectionType::Data, other.id, "later"});
  EXPECT_EQ(other.local.Receive(5), "later");
  const auto end = stream_->Receive();
  ASSERT_TRUE(end);
  EXPECT_EQ(*end, (Frame{ConnectionType::Close, stalled.id, ""}));
  EXPECT_THAT(log_.Lines(), Contains(Pair(kGXModLogWarning, HasSubstr("takes its data too slowly"))));
}

// A slow client only slows: everything arrives, and the mark bounds what waits.
TEST_F(ServerStreamThreadTest, SlowClientGetsEverything) {
  constexpr std::size_t kFrameBytes = 64 * 1024;
  constexpr std::size_t kMark = 8 * kFrameBytes;
  Start({.high_mark_bytes = kMark, .stall_ms = 60'000});
  Connection slow = Connect();
  const std::string download = Pattern(300 * kFrameBytes);
  for (std::size_t at = 0; at < download.size(); at += kFrameBytes) {
    stream_->Send({ConnectionType::Data, slow.id, download.substr(at, kFrameBytes)});
  }
  const CRefObj<MyHandler> connection = client_->FindStream(slow.id);
  ASSERT_TRUE(Eventually([&] { return connection->Owed() > kMark; }));
  EXPECT_LE(connection->Owed(), kMark + kFrameBytes);
  EXPECT_TRUE(slow.local.Receive(download.size()) == download);
}

// The far side waits for us to read, and we for a client that only goes on when the far side reads: reading on
// is what frees them.
TEST_F(ServerStreamThreadTest, DoesNotWaitForTheFarSideThatWaitsForIt) {
  constexpr std::size_t kFrameBytes = 64 * 1024;
  Start({.high_mark_bytes = 8 * kFrameBytes, .stall_ms = 60'000});
  Connection slow = Connect();
  Connection busy = Connect();
  stream_->Behave({.capacity = 1});
  busy.local.Send(Pattern(20'000));
  ASSERT_TRUE(stream_->WaitUntilWriteBlocks());
  const std::string block(kFrameBytes, 'x');
  for (int i = 0; i < 100; ++i) stream_->Send({ConnectionType::Data, slow.id, block});
  EXPECT_TRUE(stream_->WaitUntilRead());
  stream_->Behave({});
}

}  // namespace
