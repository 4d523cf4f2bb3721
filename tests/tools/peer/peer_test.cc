#include "peer/peer.h"

#include <csignal>

#include "common/ready_line.h"
#include "common/receipts.h"
#include "peer/frame_output.h"
#include "support/pattern.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A peer on one end of a socket pair; the test has the other end and has sent `words` unless the peer is raw.
class Rig {
 public:
  explicit Rig(PeerOptions options, const std::string& words = ReadyLine(Side::kHost)) {
    std::signal(SIGPIPE, SIG_IGN);
    std::tie(host_, peer_fd_) = MakeSocketPair();
    options.log = [this](LogLevel level, const std::string& line) {
      const std::lock_guard lock(mutex_);
      if (level <= LogLevel::kWarning) lines_.push_back(line);
    };
    const bool raw = options.raw;
    peer_ = std::make_unique<Peer>(std::move(options), peer_fd_.get(), peer_fd_.get());
    status_ = std::async(std::launch::async, [this] {
      thread_id_ = gettid();
      const int status = peer_->Run();
      ::shutdown(peer_fd_.get(), SHUT_RDWR);
      return status;
    });
    if (raw) return;
    EXPECT_EQ(ReadExactly(host(), Greeting(Side::kPeer).size()), Greeting(Side::kPeer));
    EXPECT_TRUE(WriteAll(host(), words));
  }
  ~Rig() { HangUp(); }

  Peer& peer() { return *peer_; }
  int host() const { return host_.get(); }
  void HangUp() { host_.Reset(); }

  void Send(ConnectionType type, std::uint32_t id, std::string_view payload = {}) {
    EXPECT_TRUE(WriteAll(host(), MakeFrame(type, id, payload)));
  }
  // Opens a connection and returns the target's end of it.
  Descriptor Connect(std::uint32_t id, const LocalTarget& target) {
    Send(ConnectionType::Connect, id, target.Address());
    return target.Accept();
  }

  Frame Next() { return ReadFrame(host()); }
  // Up to `length` bytes of data of one connection; ends at any other frame.
  std::string Data(std::uint32_t id, std::size_t length) {
    std::string bytes;
    while (bytes.size() < length) {
      const Frame frame = Next();
      if (frame.type != ConnectionType::Data || frame.id != id) break;
      bytes += frame.payload;
    }
    return bytes;
  }

  // Everything that comes until the peer waits for more.
  Received TakeBurst() const {
    Received burst;
    EXPECT_TRUE(Eventually([&] {
      const bool rests = IsAsleep(thread_id_);
      return !burst.TakeAll(host()) && rests;
    }));
    return burst;
  }
  // Writes to the peer or to a target of it until nobody takes any more; returns how many bytes that were.
  std::size_t WriteUntilStuck(int fd, std::string_view bytes) const {
    std::size_t written = 0;
    EXPECT_TRUE(Eventually([&] {
      const bool rests = IsAsleep(thread_id_);
      const std::size_t before = written;
      for (ssize_t count = 1; count > 0; written += static_cast<std::size_t>(std::max<ssize_t>(count, 0))) {
        count = ::send(fd, bytes.data() + written, bytes.size() - written, MSG_DONTWAIT);
      }
      return (rests && written == before) || written == bytes.size();
    }));
    return written;
  }

  // Waits for Run's end.
  int Join() { return status_.get(); }
  std::vector<std::string> lines() const {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  Descriptor host_;
  Descriptor peer_fd_;
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
  std::unique_ptr<Peer> peer_;
  std::atomic<pid_t> thread_id_{0};
  std::future<int> status_;  // the last member: its end waits for Run, which uses the others
};

// Answers the questions that have come to a name server: 127.0.0.1 for every name, and nothing for names that
// begin with "dead". A question is a header of 12 bytes, the name in labels, the type (A: 1) and the class.
void AnswerQuestions(int fd) {
  char bytes[512];
  sockaddr_in client{};
  socklen_t length = sizeof client;
  auto* const from = reinterpret_cast<sockaddr*>(&client);
  ssize_t count = 0;
  while ((count = ::recvfrom(fd, bytes, sizeof bytes, MSG_DONTWAIT, from, &length)) > 12) {
    std::string reply(bytes, static_cast<std::size_t>(count));
    if (reply.substr(13, 4) == "dead") continue;
    reply.resize(reply.find('\0', 12) + 5);
    const bool has_address = reply[reply.size() - 3] == 1;
    reply.replace(2, 10, std::string("\x81\x80\0\1\0\0\0\0\0\0", 10));
    reply[7] = has_address ? 1 : 0;
    if (has_address) reply += std::string("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1", 16);
    ::sendto(fd, reply.data(), reply.size(), 0, from, length);
  }
}

class PeerTest : public testing::Test {
 protected:
  PeerTest() {
    options_.allow = AllowList::Any();
    options_.raw = true;
  }

  const LocalTarget target_;
  PeerOptions options_;
};

TEST_F(PeerTest, SlowTargetCostsBoundedMemoryAndNoByte) {
  Rig rig(options_);
  const Descriptor slow = rig.Connect(1, target_);
  const Descriptor other = rig.Connect(2, target_);
  std::string frames;
  std::string expected;
  for (std::uint32_t i = 0; i < 512; ++i) {
    expected += Pattern(65536, i);
    frames += MakeFrame(ConnectionType::Data, 1, std::string_view(expected).substr(65536 * i));
  }
  const std::size_t taken = rig.WriteUntilStuck(rig.host(), frames);
  EXPECT_GT(taken, std::size_t{8} << 20);
  EXPECT_LT(taken, std::size_t{20} << 20) << "the queue and the system's buffers";

  // The other direction goes on.
  EXPECT_TRUE(WriteAll(other.get(), "still here"));
  EXPECT_EQ(rig.Data(2, 10), "still here");

  // A Close takes effect after the queued bytes.
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

// Fills all buffers between the target of connection 1 and the host, sends `word` on connection 2, and returns
// how many bytes arrive before it.
std::size_t BytesAhead(Rig& rig, int bulk, int talk, const char* word) {
  rig.WriteUntilStuck(bulk, std::string(64 << 20, 'x'));
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
  // The peer's queue and the socket pair.
  EXPECT_LT(BytesAhead(rig, bulk.get(), talk.get(), "one"), std::size_t{1} << 20);
  // Then connection 2 counts as a conversation, unless a second passes, so the queue is shorter.
  EXPECT_TRUE(Eventually([&] { return BytesAhead(rig, bulk.get(), talk.get(), "two") < 192U << 10; }));

  // When connection 2 has been silent for a while, frames have their full length again.
  EXPECT_TRUE(Eventually([&] {
    rig.WriteUntilStuck(bulk.get(), std::string(1 << 20, 'x'));
    return rig.TakeBurst().longest == 65536;
  }));
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
  std::size_t bytes = 0;
  for (std::span<char> room; !(room = output.Room()).empty();) {
    output.AddData(1, room.size());
    bytes += gxmod::kFrameHeaderBytes + room.size();
  }
  output.FlushNow();
  ASSERT_FALSE(output.idle());
  auto read =
      std::async(std::launch::async, [fd = reader.get(), bytes] { return ReadExactly(fd, bytes).size(); });
  while (!output.idle() && io.run_one_for(kPatience) != 0) {
  }
  EXPECT_EQ(read.get(), bytes);
}

TEST_F(PeerTest, AnswersThatNobodyTakesDoNotPileUp) {
  Rig rig(options_);
  std::string frames;
  for (int i = 0; i < 4096; ++i) frames += MakeFrame(ConnectionType::TestChannel, 0, std::string(1024, 'x'));
  const std::size_t taken = rig.WriteUntilStuck(rig.host(), frames);
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
    rig.WriteUntilStuck(rig.host(), MakeFrame(ConnectionType::Data, 1, std::string(32 << 20, 'x')));
    rig.WriteUntilStuck(endless.get(), std::string(8 << 20, 'x'));
    stopped ? rig.peer().Stop() : rig.HangUp();
    EXPECT_EQ(rig.Join() == kPeerEnded, stopped);
  }
}

class PeerLinkTest : public PeerTest {
 protected:
  PeerLinkTest() { options_.raw = false; }
};

TEST_F(PeerLinkTest, NoMoreIsUnderWayThanTheLineCarries) {
  Rig rig(options_, Greeting(Side::kHost));
  const auto first = ReadAcknowledgement(rig.Next().payload);
  EXPECT_EQ(first, (Acknowledgement{0, Receipts::kRoomBytes}));
  EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({0, 128 << 10})));
  const Descriptor bulk = rig.Connect(1, target_);
  const Descriptor talk = rig.Connect(2, target_);
  rig.WriteUntilStuck(bulk.get(), std::string(8 << 20, 'x'));
  std::uint64_t came = 0;
  const auto take_burst = [&] {
    const std::uint64_t bytes = rig.TakeBurst().bytes;
    came += bytes;
    return bytes;
  };
  EXPECT_LE(take_burst(), 9U << 10) << "before anything is known of the line";
  // Connection 2 sends little, so its bytes go before the waiting ones.
  EXPECT_TRUE(WriteAll(talk.get(), "one"));
  EXPECT_EQ(take_burst(), 0U) << "nobody knows yet that it says little";
  // A pong acknowledges; false acknowledgements change nothing.
  rig.Send(kPongFrame, 0, PingPayload(came));
  EXPECT_GT(take_burst(), 0U);
  EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({0, 0}) + MakeAcknowledgement({0, 0})));
  EXPECT_EQ(take_burst(), 0U);
  EXPECT_THAT(rig.lines(), ElementsAre(HasSubstr("cannot have got")));
  // A fast line gets at most what the other side permits.
  do EXPECT_TRUE(WriteAll(rig.host(), MakeAcknowledgement({came, 256 << 10})));
  while (take_burst() > 0);
  EXPECT_GT(came, 128U << 10);
  EXPECT_LE(came, 256U << 10);
  // Behind the end of its input no acknowledgement comes any more, and the rest is sent without.
  ::shutdown(rig.host(), SHUT_WR);
  EXPECT_GE(rig.Data(1, 100'000).size(), 100'000U);
}

// The peer reads all that it permits, so it still answers pings.
TEST_F(PeerLinkTest, ASlowTargetLeavesTheOtherSideHeard) {
  Rig rig(options_, Greeting(Side::kHost));
  const Descriptor slow = rig.Connect(1, target_);
  const std::string frame = MakeFrame(ConnectionType::Data, 1, std::string(65520, 'x'));
  std::uint64_t sent = gxmod::kFrameHeaderBytes + target_.Address().size();
  Received got;
  do {
    for (; sent + frame.size() <= got.told.permitted; sent += frame.size()) {
      EXPECT_TRUE(WriteAll(rig.host(), frame));
    }
    ASSERT_TRUE(got.TakeUntil(rig.host(), [&] { return got.told.received == sent; }))
        << "what is permitted is read";
  } while (sent + frame.size() <= got.told.permitted);
  EXPECT_GT(sent, std::uint64_t{8} << 20);
  EXPECT_LT(sent, std::uint64_t{32} << 20);
  rig.Send(kPingFrame, 0, PingPayload(0));
  EXPECT_TRUE(got.TakeUntil(rig.host(), [&] { return got.ponged; }));
  // From a side that sends more than it was permitted, the peer stops reading.
  std::string flood;
  for (int i = 0; i < 512; ++i) flood += frame;
  EXPECT_LT(rig.WriteUntilStuck(rig.host(), flood), std::size_t{8} << 20);
}

// Each order replaces the one before it, and none is larger than kMostFillBytes.
TEST_F(PeerLinkTest, FillsTheLineWithinBounds) {
  Rig rig(options_);
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
  rig.Send(kFillFrame, 0, FillPayload(kMostFillBytes));
  rig.Send(kFillFrame, 0, FillPayload(0));
  EXPECT_LE(bytes_until_pong(), std::uint64_t{1} << 20);
  EXPECT_EQ(bytes_until_pong(), 0U);
}

TEST_F(PeerLinkTest, NoticesASilentLinkButNotAnAnsweringOne) {
  options_.keepalive = std::chrono::milliseconds(100);
  Clock::time_point heard = Clock::now();  // not later than when the peer was last told something
  Clock::duration longest{};               // in which it may have heard nothing
  Rig rig(options_);
  Frame frame;
  for (int pings = 0; pings < 2 * options_.keepalive_count && (frame = rig.Next()).type == kPingFrame;
       ++pings) {
    const auto before = Clock::now();
    WriteAll(rig.host(), MakeFrame(kPongFrame, 0, frame.payload));
    longest = std::max(longest, Clock::now() - std::exchange(heard, before));
  }
  if (frame.type != kPingFrame) {
    EXPECT_GE(std::max(longest, Clock::now() - heard), 3 * options_.keepalive) << "it was answered in time";
  }
  EXPECT_EQ(rig.Join(), kPeerLinkLost);
  EXPECT_THAT(rig.lines(), ElementsAre(HasSubstr("nothing came for 300ms")));
}

TEST_F(PeerLinkTest, StopLetsWhatIsUnderWayFinish) {
  options_.end_times.stop = std::chrono::hours(1);
  Rig rig(options_);
  const Descriptor busy = rig.Connect(1, target_);
  const Descriptor idle = rig.Connect(2, target_);
  std::string bytes = Pattern(16 << 20, 1);
  bytes.resize(rig.WriteUntilStuck(busy.get(), bytes));
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
  // A Close makes room; the data before it still arrives, also at a target that is being opened.
  const auto last_words = [](std::uint32_t id) {
    return MakeFrame(ConnectionType::Data, id, "last words") + MakeFrame(ConnectionType::Close, id, {});
  };
  EXPECT_TRUE(WriteAll(rig.host(), last_words(1)));
  EXPECT_EQ(ReadToEnd(first.get()), "last words");
  EXPECT_TRUE(WriteAll(rig.host(), MakeFrame(ConnectionType::Connect, 4, target_.Address()) + last_words(4)));
  EXPECT_EQ(ReadToEnd(target_.Accept().get()), "last words");
}

TEST_F(PeerTest, IdleConnectionsEndAndBusyOnesDoNot) {
  options_.idle_timeout = std::chrono::milliseconds(300);
  Clock::time_point begin = Clock::now();
  Clock::time_point moved;  // at the latest when connection 2 moved last
  Rig rig(options_);
  const Descriptor idle = rig.Connect(1, target_);
  const Descriptor busy = rig.Connect(2, target_);
  Frame frame;
  do {
    moved = std::exchange(begin, Clock::now());
    EXPECT_TRUE(WriteAll(busy.get(), "tick"));
    frame = rig.Next();
  } while (frame == Frame{ConnectionType::Data, 2, "tick"});
  if (frame == Frame{ConnectionType::Close, 2}) {
    EXPECT_GE(Clock::now() - moved, options_.idle_timeout) << "this thread did not stand still for so long";
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
  const LocalTarget server(SOCK_DGRAM);
  options_.names.servers = server.Address();
  options_.connect_timeout = {};  // the dead ones are looked up to the end
  Rig rig(options_);
  const std::string port = ':' + std::to_string(target_.port());
  std::uint32_t id = 0;
  while (++id <= 6) {
    rig.Send(ConnectionType::Connect, id, "dead" + std::to_string(id) + ".example" + port);
    if (id % 2 == 0) rig.Send(ConnectionType::Close, id);
  }
  for (const char* const host : {"alive.example", "localhost"}) {
    rig.Send(ConnectionType::Connect, ++id, host + port);
    EXPECT_TRUE(Eventually([&] { return AnswerQuestions(server.fd()), WaitFor(target_.fd(), POLLIN, 0); }));
    EXPECT_TRUE(WriteAll(target_.Accept().get(), host));
    EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Data, id, host}));
    EXPECT_EQ(rig.Next(), (Frame{ConnectionType::Close, id}));
  }
  ::shutdown(rig.host(), SHUT_WR);
  EXPECT_EQ(rig.Join(), kPeerEnded);
}

}  // namespace
}  // namespace gxtool
