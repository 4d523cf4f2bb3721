#include "peer/peer.h"

#include "common/receipts.h"
#include "peer/frame_output.h"
#include "support/pattern.h"
#include "tools/peer/rig.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class PeerTest : public testing::Test {
 protected:
  PeerTest() {
    options_.allow = AllowList::Any();
    options_.raw = true;
  }

  const LocalTarget target_;
  PeerOptions options_;
};

// Writes until nobody takes any more for a while; returns how many bytes that were.
std::size_t WriteUntilStuck(int fd, std::string_view bytes) {
  std::size_t written = 0;
  while (written < bytes.size() && WaitFor(fd, POLLOUT, 500)) {
    const ssize_t count = ::send(fd, bytes.data() + written, bytes.size() - written, MSG_DONTWAIT);
    if (count > 0) written += static_cast<std::size_t>(count);
  }
  return written;
}

TEST_F(PeerTest, CloseFlushesWhatIsQueuedFirst) {
  Rig rig(options_);
  const Descriptor connection = rig.Connect(1, target_);
  const std::string bytes = Pattern(6 << 20, 1);
  rig.Send(ConnectionType::Data, 1, bytes);
  rig.Send(ConnectionType::Close, 1);
  EXPECT_TRUE(WriteAll(connection.get(), "an answer that nobody waits for"));
  EXPECT_TRUE(ReadToEnd(connection.get()) == bytes);
  // A target that was still being opened gets its bytes as well.
  rig.Send(ConnectionType::Connect, 2, target_.Address());
  rig.Send(ConnectionType::Data, 2, "last words");
  rig.Send(ConnectionType::Close, 2);
  EXPECT_EQ(ReadToEnd(target_.Accept().get()), "last words");
}

TEST_F(PeerTest, SlowTargetCostsBoundedMemoryAndNoByte) {
  Rig rig(options_);
  const Descriptor slow = rig.Connect(1, target_);
  const Descriptor other = rig.Connect(2, target_);
  std::string frames;
  std::string expected;
  for (std::uint32_t i = 0; i < 1024; ++i) {
    expected += Pattern(65536, i);
    frames += MakeFrame(ConnectionType::Data, 1, std::string_view(expected).substr(65536 * i));
  }
  const std::size_t taken = WriteUntilStuck(rig.host(), frames);
  EXPECT_GT(taken, std::size_t{8} << 20);
  EXPECT_LT(taken, std::size_t{20} << 20);  // the queue, and what the system holds

  // The way back is not held up.
  EXPECT_TRUE(WriteAll(other.get(), "still here"));
  EXPECT_EQ(rig.Data(2, 10), "still here");

  // A Close ends the connection behind what is queued.
  frames += MakeFrame(ConnectionType::Close, 1, {});
  std::thread writer([&] { EXPECT_TRUE(WriteAll(rig.host(), std::string_view(frames).substr(taken))); });
  EXPECT_TRUE(ReadToEnd(slow.get()) == expected);
  writer.join();
}

TEST_F(PeerTest, TargetThatStallsAllOthersIsCut) {
  options_.stall_timeout = std::chrono::milliseconds(200);
  Rig rig(options_);
  const Descriptor stalled = rig.Connect(1, target_);
  const Descriptor other = rig.Connect(2, target_);
  const std::string bytes(65536, 'x');
  for (int i = 0; i < 1024; ++i) rig.Send(ConnectionType::Data, 1, bytes);
  rig.Send(ConnectionType::Data, 2, "my turn");
  EXPECT_EQ(ReadExactly(other.get(), 7), "my turn");
  EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Close, 1}));
}

// Fills what lies between the bulk transfer of connection 1 and the host, says `word` on connection 2 and
// returns how many bytes come before it.
std::size_t BytesAhead(Rig& rig, int bulk, int talk, const char* word) {
  WriteUntilStuck(bulk, std::string(64 << 20, 'x'));
  EXPECT_TRUE(WriteAll(talk, word));
  std::size_t ahead = 0;
  Frame frame;
  while ((frame = rig.Next()).id == 1) ahead += frame.payload.size();
  EXPECT_EQ(frame, (Frame{ConnectionType::Data, 2, word}));
  return ahead;
}

TEST_F(PeerTest, SmallFramesAreNotHeldBackByABulkTransfer) {
  Rig rig(options_);
  const Descriptor bulk = rig.Connect(1, target_);
  const Descriptor talk = rig.Connect(2, target_);
  // The queue, and what the socket pair holds.
  EXPECT_LT(BytesAhead(rig, bulk.get(), talk.get(), "one"), std::size_t{1} << 20);
  BytesAhead(rig, bulk.get(), talk.get(), "two");
  // By now this is a conversation, and less lies ahead of it.
  EXPECT_LT(BytesAhead(rig, bulk.get(), talk.get(), "three"), std::size_t{192} << 10);

  // When connection 2 has been silent for a while frames are full again.
  std::thread sender([fd = bulk.get()] {
    const std::string bytes(1 << 20, 'x');
    while (WriteAll(fd, bytes)) {
    }
  });
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  Frame frame;
  while (frame.payload.size() != 65536 && std::chrono::steady_clock::now() < limit) frame = rig.Next();
  EXPECT_EQ(frame.payload.size(), 65536U) << "full frames again";
  rig.HangUp();
  rig.Join();
  sender.join();
}

TEST(FrameOutputTest, WhatTheStreamDoesNotTakeAtOnceFollows) {
  struct : FrameOutput::Owner {
    void OnOutputProgress() override {}
    void OnOutputBroken() override { ADD_FAILURE(); }
  } owner;
  auto [reader, writer] = MakeSocketPair();
  SetNonBlocking(writer.get(), true);
  asio::io_context io;
  FrameOutput output(io, writer.Release(), &owner);
  output.SetInteractive(true);
  std::size_t missing = 0;
  for (std::span<char> room; !(room = output.Room()).empty();) {
    std::ranges::fill(room, 'x');
    output.AddData(1, room.size());
    missing += gxmod::kFrameHeaderBytes + room.size();
  }
  output.FlushNow();
  ASSERT_FALSE(output.idle());
  std::vector<char> bytes(missing);
  while (missing > 0) {
    const ssize_t got = recv(reader.get(), bytes.data(), missing, MSG_DONTWAIT);
    if (got <= 0 && io.run_one_for(gxtest::kPatience) == 0) break;
    missing -= static_cast<std::size_t>(std::max<ssize_t>(got, 0));
  }
  EXPECT_EQ(missing, 0U);
}

TEST_F(PeerTest, AnswersThatNobodyTakesDoNotPileUp) {
  Rig rig(options_);
  std::string frames;
  for (int i = 0; i < 4096; ++i) frames += MakeFrame(ConnectionType::TestChannel, 0, std::string(1024, 'x'));
  const std::size_t taken = WriteUntilStuck(rig.host(), frames);
  EXPECT_LT(taken, frames.size());
  std::thread writer([&] { EXPECT_TRUE(WriteAll(rig.host(), std::string_view(frames).substr(taken))); });
  for (int i = 0; i < 4096; ++i) EXPECT_EQ(rig.Next().payload.size(), 1024 + gxmod::kTestRespondHeaderBytes);
  writer.join();
}

TEST_F(PeerTest, NothingThatNeverEndsHoldsItsEndUp) {
  for (const bool stopped : {false, true}) {
    Rig rig(options_);
    const Descriptor deaf = rig.Connect(1, target_);
    const Descriptor endless = rig.Connect(2, target_);
    WriteUntilStuck(rig.host(), MakeFrame(ConnectionType::Data, 1, std::string(32 << 20, 'x')));
    WriteUntilStuck(endless.get(), std::string(8 << 20, 'x'));
    stopped ? rig.peer().Stop() : rig.HangUp();
    EXPECT_EQ(rig.Join() == kPeerEnded, stopped);
  }
}

class PeerLinkTest : public PeerTest {
 protected:
  PeerLinkTest() { options_.raw = false; }

  static void Greet(Rig& rig, const std::string& words = ReadyLine(Side::kHost)) {
    EXPECT_EQ(ReadExactly(rig.host(), Greeting(Side::kPeer).size()), Greeting(Side::kPeer));
    EXPECT_TRUE(WriteAll(rig.host(), words));
  }
};

// What comes until all is still for a moment.
struct Burst {
  explicit Burst(Rig& rig) {
    for (Frame frame{kPingFrame}; frame.type != ConnectionType{} && WaitFor(rig.host(), POLLIN, 300);) {
      frame = rig.Next();
      if (frame.type == kAcknowledgementFrame) told = ReadAcknowledgement(frame.payload);
      if (frame.type == kPongFrame) ponged = true;
      if (!IsControlFrame(frame.type)) bytes += gxmod::kFrameHeaderBytes + frame.payload.size();
    }
  }
  std::uint64_t bytes = 0;  // that count
  std::optional<Acknowledgement> told;
  bool ponged = false;
};

TEST_F(PeerLinkTest, NoMoreIsUnderWayThanTheLineCarries) {
  Rig rig(options_);
  Greet(rig, Greeting(Side::kHost));
  const auto first = ReadAcknowledgement(rig.Next().payload);
  EXPECT_EQ(first, (Acknowledgement{0, Receipts::kRoomBytes}));
  EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({0, 128 << 10})));
  const Descriptor bulk = rig.Connect(1, target_);
  const Descriptor talk = rig.Connect(2, target_);
  WriteUntilStuck(bulk.get(), std::string(8 << 20, 'x'));
  std::uint64_t came = 0;
  const auto take_burst = [&] {
    const std::uint64_t bytes = Burst(rig).bytes;
    came += bytes;
    return bytes;
  };
  EXPECT_LE(take_burst(), 9U << 10) << "before anything is known of the line";
  // Connection 2 has said little so far: its bytes go ahead of those that wait.
  EXPECT_TRUE(WriteAll(talk.get(), "one"));
  EXPECT_EQ(take_burst(), 0U) << "nobody knows yet that it says little";
  EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({came, 128 << 10})));
  EXPECT_GT(take_burst(), 0U);
  // False acknowledgements change nothing, and a pong counts as one.
  EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({0, 0}) + MakeAcknowledgement({0, 0})));
  EXPECT_EQ(take_burst(), 0U);
  EXPECT_THAT(rig.lines(), ElementsAre(HasSubstr("cannot have got")));
  rig.Send(kPongFrame, 0, PingPayload(came));
  EXPECT_GT(take_burst(), 0U);
  // Not even a fast line gets more than there is room for at its end.
  for (std::uint64_t before = 0; came != before;) {
    before = came;
    EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({came, 128 << 10})));
    take_burst();
  }
  EXPECT_LE(came, 128U << 10);
}

// The peer permits the other side no more than it will read, so it never stops reading: pings are answered.
TEST_F(PeerLinkTest, ASlowTargetLeavesTheOtherSideHeard) {
  Rig rig(options_);
  Greet(rig, Greeting(Side::kHost));
  const Descriptor slow = rig.Connect(1, target_);
  std::uint64_t permitted = 0;
  const auto take_frames = [&] {
    const Burst burst(rig);
    if (burst.told) permitted = burst.told->permitted;
    return burst.ponged;
  };
  take_frames();
  const std::string frame = MakeFrame(ConnectionType::Data, 1, std::string(65520, 'x'));
  std::uint64_t sent = gxmod::kFrameHeaderBytes + target_.Address().size();
  for (std::uint64_t before = 0; permitted != before; take_frames()) {
    before = permitted;
    for (; sent + frame.size() <= permitted; sent += frame.size()) EXPECT_TRUE(WriteAll(rig.host(), frame));
  }
  EXPECT_GT(permitted, std::uint64_t{8} << 20);
  EXPECT_LT(permitted, std::uint64_t{32} << 20);
  rig.Send(kPingFrame, 0, PingPayload(0));
  EXPECT_TRUE(take_frames());
  // Of a side that sends more than it was permitted nothing more is read.
  std::string flood;
  for (int i = 0; i < 512; ++i) flood += frame;
  EXPECT_LT(WriteUntilStuck(rig.host(), flood), std::size_t{8} << 20);
  rig.HangUp();
  rig.Join();
}

// Whatever it is asked for and however often, it sends that much for the last order and no more.
TEST_F(PeerLinkTest, FillsTheLineWithinBounds) {
  Rig rig(options_);
  Greet(rig);
  for (int i = 0; i < 100; ++i) rig.Send(kFillFrame, 0, FillPayload(~std::uint64_t{0}));
  EXPECT_EQ(rig.Data(0, kMostFillBytes).size(), kMostFillBytes);
  const auto bytes_until_pong = [&rig] {
    rig.Send(kPingFrame, 0, PingPayload(0));
    std::uint64_t bytes = 0;
    Frame frame;
    while ((frame = rig.Next()).type == ConnectionType::Data) bytes += frame.payload.size();
    EXPECT_EQ(frame.type, kPongFrame);
    return bytes;
  };
  std::uint64_t more = 0;
  for (int i = 0; i < 20; ++i) more += bytes_until_pong();
  EXPECT_LE(more, std::uint64_t{1} << 20) << "what was on its way before the last order came";
  rig.Send(kFillFrame, 0, FillPayload(1000));
  EXPECT_EQ(rig.Data(0, 1000).size(), 1000U);
  rig.Send(kFillFrame, 0, FillPayload(kMostFillBytes));
  rig.Send(kFillFrame, 0, FillPayload(0));
  EXPECT_LE(bytes_until_pong(), std::uint64_t{1} << 20);
  EXPECT_EQ(bytes_until_pong(), 0U);
}

TEST_F(PeerLinkTest, NoticesASilentLinkButNotABusyOrAnsweringOne) {
  options_.keepalive = std::chrono::milliseconds(300);
  Rig rig(options_);
  Greet(rig);
  for (int i = 0; i < 3; ++i) {
    const Frame ping = rig.Next();
    EXPECT_EQ(ping.type, kPingFrame);
    rig.Send(kPongFrame, 0, ping.payload);
  }
  EXPECT_EQ(rig.Join(), kPeerLinkLost);
  EXPECT_THAT(rig.lines(), ElementsAre(HasSubstr("nothing came for 900ms")));
}

TEST_F(PeerLinkTest, StopLetsWhatIsUnderWayFinish) {
  Rig rig(options_);
  Greet(rig);
  const Descriptor busy = rig.Connect(1, target_);
  const Descriptor idle = rig.Connect(2, target_);
  // Little enough to get through in time on a slow machine.
  const int buffer = 64 * 1024;
  ::setsockopt(busy.get(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
  std::string bytes = Pattern(16 << 20, 1);
  bytes.resize(WriteUntilStuck(busy.get(), bytes));
  rig.peer().Stop();
  rig.Send(ConnectionType::Connect, 3, target_.Address());
  std::string received;
  std::vector<Frame> rest;
  for (Frame frame = rig.Next(); frame.type != ConnectionType{}; frame = rig.Next()) {
    frame.id == 1 && !frame.payload.empty() ? void(received += frame.payload) : rest.push_back(frame);
  }
  EXPECT_TRUE(received == bytes);
  EXPECT_THAT(rest, ElementsAre(Frame{kResetFrame, 3, "refused " + target_.Address() + ": stopping"},
                                Frame{ConnectionType::Close, 3}, Frame{kGoodbyeFrame, 0, "stopped"}));
  EXPECT_EQ(rig.Join(), kPeerEnded);
}

TEST_F(PeerTest, ConnectionsAreCounted) {
  options_.max_connections = 2;
  Rig rig(options_);
  const Descriptor first = rig.Connect(1, target_);
  const Descriptor second = rig.Connect(2, target_);
  rig.Send(ConnectionType::Connect, 3, target_.Address());
  EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Close, 3}));
  EXPECT_THAT(rig.lines(), ElementsAre(HasSubstr("refused " + target_.Address() + ": 2 connections are open")));
  EXPECT_TRUE(WriteAll(
      rig.host(), MakeFrame(ConnectionType::Data, 1, "last words") + MakeFrame(ConnectionType::Close, 1, {})));
  EXPECT_EQ(ReadToEnd(first.get()), "last words");
  EXPECT_GE(rig.Connect(4, target_).get(), 0);
}

TEST_F(PeerTest, IdleConnectionsEndAndBusyOnesDoNot) {
  options_.idle_timeout = std::chrono::seconds(1);
  Rig rig(options_);
  const Descriptor idle = rig.Connect(1, target_);
  const Descriptor busy = rig.Connect(2, target_);
  Frame frame = Frame{ConnectionType::Data, 2, "tick"};
  while (frame == Frame{ConnectionType::Data, 2, "tick"}) {
    EXPECT_TRUE(WriteAll(busy.get(), "tick"));
    frame = rig.Next();
  }
  EXPECT_EQ(frame, (Frame{ConnectionType::Close, 1}));
}

TEST_F(PeerTest, AddressesAreTriedInTurnAndJudged) {
  const std::string port = std::to_string(target_.port());
  options_.allow = AllowList();
  for (const std::string host : {"db.example:", "rebound.example:", "127.0.0.1:"}) {
    std::string why;
    ASSERT_TRUE(options_.allow.Add(host + port, &why)) << why;
  }
  options_.names.lookup = [](const std::string& name) {
    if (name == "db.example") return LookupResult{{"127.0.0.2", "garbage", "127.0.0.1"}, ""};
    return LookupResult{{"127.0.0.3"}, ""};
  };
  Rig rig(options_);
  rig.Send(ConnectionType::Connect, 1, "DB.example:" + port);
  rig.Send(ConnectionType::Data, 1, "found");
  EXPECT_EQ(ReadExactly(target_.Accept().get(), 5), "found");
  EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Close, 1}));
  rig.Send(ConnectionType::Connect, 2, "rebound.example:" + port);
  EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Close, 2}));
  EXPECT_THAT(rig.lines(), ::testing::Contains(HasSubstr("--allow 127.0.0.3:" + port)));
}

TEST_F(PeerTest, DeadNamesHoldNothingUp) {
  const NameServer server;
  options_.names.servers = server.Address();
  Rig rig(options_);
  const std::string port = ':' + std::to_string(target_.port());
  std::uint32_t id = 0;
  while (++id <= 6) {
    rig.Send(ConnectionType::Connect, id, "dead" + std::to_string(id) + ".example" + port);
    if (id % 2 == 0) rig.Send(ConnectionType::Close, id);
  }
  for (const char* const host : {"alive.example", "localhost"}) {
    rig.Send(ConnectionType::Connect, ++id, host + port);
    EXPECT_TRUE(WriteAll(target_.Accept().get(), host));
    EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Data, id, host}));
    EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Close, id}));
  }
  EXPECT_EQ(rig.End(), kPeerEnded);
}

}  // namespace
}  // namespace gxtool
