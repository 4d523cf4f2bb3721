#include "gx-ssh/plugin_stream.h"

#include <signal.h>
#include <sys/ioctl.h>

#include "support/pattern.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;

// Records what the stream reports.
class Diary : public StreamObserver {
 public:
  void OnFrameSent(const gxmod::FrameHeader&) override {
    if (on_sent) on_sent();
  }
  void OnFrameReceived(const gxmod::FrameHeader&) override { ++frames; }
  void OnInputDelivered(std::uint32_t) override {}
  void OnReset(std::uint32_t, std::string_view) override {}
  void OnChannelListDropped() override {}
  void OnGoodbye(const std::string&) override {}
  void OnFalseAcknowledgement() override { Add("doubt"); }
  void OnEntered(std::uint32_t, Route) override {}
  void OnWaiting() override {}
  void OnRoom() override {}
  void OnInputEnd(const std::string& reason) override { Add("end: " + reason); }
  void OnOutputFailed(const std::string& reason) override { Add("failed: " + reason); }

  std::string Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(text_, {});
  }

  std::function<void()> on_sent;  // set before the module writes
  std::atomic<int> frames{0};     // for the module

 private:
  void Add(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    text_ += entry + "; ";
  }

  std::mutex mutex_;
  std::string text_;
};

// The test plays the module and the far side.
class PluginStreamTest : public testing::Test {
 protected:
  PluginStreamTest() { signal(SIGPIPE, SIG_IGN); }

  void Open(StreamSettings settings = {}) {
    stream_ = {};  // while its far side is there
    auto [mine, theirs] = MakeSocketPair();
    far_ = std::move(theirs);
    Descriptor copy = Duplicate(mine.get());
    stream_ = CRefObj<PluginStream>(new PluginStream(std::move(mine), std::move(copy), {}, settings, diary_));
  }

  void Send(std::string_view bytes) { EXPECT_TRUE(WriteAll(far_.get(), bytes)); }
  void EndOfFarSide() { shutdown(far_.get(), SHUT_WR); }

  // What one call of the module reads; empty: the stream has ended.
  std::string ReadOnce(unsigned most) {
    std::string bytes(most, '\0');
    unsigned got = 0;
    stream_->Read(bytes.data(), most, &got, 0);
    return bytes.substr(0, got);
  }
  // All that the module reads, at most `step` bytes per call, until the stream ends.
  std::string ReadModule(unsigned step) {
    std::string all;
    for (std::string piece; !(piece = ReadOnce(step)).empty();) all += piece;
    return all;
  }
  bool WriteModule(std::string_view bytes) {
    unsigned written = 0;
    const std::uint32_t result = stream_->Write(bytes.data(), static_cast<unsigned>(bytes.size()), &written, 0);
    EXPECT_TRUE(result != kGXModOk || written == bytes.size()) << "only part of a block was taken";
    return result == kGXModOk;
  }

  Descriptor far_;
  Diary diary_;
  CRefObj<PluginStream> stream_;
};

std::string DataFrame(std::uint32_t id, std::string_view payload) {
  return MakeFrame(ConnectionType::Data, id, payload);
}

const std::string kPing = MakeFrame(kPingFrame, 0, "12345678");
const std::string kList = MakeFrame(ConnectionType::ChannelList, 0, std::string(100'000, 'x'));

TEST_F(PluginStreamTest, ChannelListsPassOnlyWhenAllowed) {
  for (const bool allowed : {false, true}) {
    Open({.allow_channel_list = allowed});
    const std::string end = DataFrame(1, "x");
    auto module = std::async(std::launch::async, [this] { return ReadModule(4096); });
    Send(kList + end);
    EndOfFarSide();
    EXPECT_EQ(module.get(), allowed ? kList + end : end);
  }
}

TEST_F(PluginStreamTest, AnswersPingsBetweenFramesOnly) {
  Open();
  // A frame is told before the far side has it: otherwise the answer could be counted before the frame.
  bool early = false;
  diary_.on_sent = [&] { early = !WaitFor(far_.get(), POLLIN, 0); };
  const std::string frame = DataFrame(1, "0123456789");
  EXPECT_TRUE(WriteModule(frame.substr(0, 20)));
  EXPECT_TRUE(early);
  Send(kPing);
  EndOfFarSide();
  ReadModule(4096);  // the answer waits for the end of the frame
  EXPECT_TRUE(WriteModule(frame.substr(20)));
  stream_->Finish("done", kPatience);
  stream_ = {};
  EXPECT_EQ(ReadToEnd(far_.get()),
            frame + MakeFrame(kPongFrame, 0, "12345678") + MakeFrame(kGoodbyeFrame, 0, "done"));
}

TEST_F(PluginStreamTest, AnswersThatNobodyTakesDoNotPileUp) {
  Open();
  std::string pings;
  for (int i = 0; i < 1000; ++i) pings += kPing;
  auto module = std::async(std::launch::async, [this] { return ReadModule(4096); });
  for (int i = 0; i < 200; ++i) Send(pings);
  EndOfFarSide();
  module.get();
  auto end = std::async(std::launch::async, [this] {
    stream_->Finish("", kPatience);
    stream_ = {};
  });
  EXPECT_LT(ReadToEnd(far_.get()).size(), pings.size() * 50);
}

// When the far side vanishes, the waiting writer reports it.
TEST_F(PluginStreamTest, CloseAndAVanishedFarSideReleaseWhoWaits) {
  for (const bool vanishes : {false, true}) {
    Open();
    auto reader = std::async(std::launch::async, [&] { return vanishes ? "" : ReadModule(16); });
    auto writer = std::async(std::launch::async, [this] {
      while (WriteModule(DataFrame(1, std::string(60'000, 'x')))) {
      }
    });
    // After this the reader and the writer are both at work.
    ReadExactly(far_.get(), 1'000'000);
    vanishes ? far_.Reset() : void(stream_->Close());
    EXPECT_EQ(reader.wait_for(kPatience), std::future_status::ready);
    EXPECT_EQ(writer.wait_for(kPatience), std::future_status::ready);
    EXPECT_FALSE(WriteModule(DataFrame(1, "x")));
    stream_->Finish("", kPatience);
    const std::string told = diary_.Take();
    EXPECT_EQ(told.find("end"), std::string::npos) << "our own close is no news";
    EXPECT_EQ(told.find("failed: ") != std::string::npos, vanishes);
    EXPECT_EQ(told.find("failed: "), told.rfind("failed: ")) << "told once";
  }
}

// The module may wait for a client and read nothing. Meanwhile its frames go out, and the far side is heard.
// The module gets everything later.
TEST_F(PluginStreamTest, TheFarSideIsHeardWhileTheModuleDoesNotRead) {
  Open({.acknowledges = true});
  Received got;
  const std::string first = DataFrame(7, "first");
  Send(MakeAcknowledgement({0, 1 << 20}) + first);
  EXPECT_EQ(ReadOnce(100), first);
  const std::string payload = Pattern(60'000, 1);
  std::atomic<pid_t> writer{0};
  auto module = std::async(std::launch::async, [&] {
    writer = gettid();
    return WriteModule(DataFrame(7, payload));
  });
  EXPECT_TRUE(got.TakeUntil(far_.get(), [&] { return got.bytes > 0 && IsAsleep(writer); }));
  EXPECT_LE(got.bytes, 16U << 10) << "before anything is known of the line";
  EXPECT_LE(got.longest, 4096U);
  EXPECT_TRUE(got.TakeUntil(far_.get(), [&] {
    WriteAll(far_.get(), MakeAcknowledgement({got.bytes, 1 << 20}));
    return got.data.size() == payload.size();
  }));
  EXPECT_EQ(module.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(got.data, payload);

  // The stream keeps what comes meanwhile, in order, and permits only what it has room for.
  std::string sent;
  EXPECT_TRUE(got.TakeUntil(far_.get(), [&] {
    const std::string frame = DataFrame(8, Pattern(65520, 2));
    for (; first.size() + sent.size() + frame.size() <= got.told.permitted; sent += frame) {
      Send(frame + kPing);
    }
    return got.ponged && got.told.received >= std::uint64_t{7} << 20;
  }));
  EXPECT_LT(got.told.permitted, std::uint64_t{9} << 20);
  EXPECT_TRUE(Eventually([this] { return stream_->silence().count() >= 20; })) << "somebody waits";
  auto all = std::async(std::launch::async, [this] { return ReadModule(100'000); });
  EXPECT_TRUE(got.TakeUntil(far_.get(), [&] { return got.told.permitted >= std::uint64_t{11} << 20; }));
  EndOfFarSide();
  EXPECT_TRUE(all.get() == sent);
}

// The last bytes are acknowledged while the reader waits. False acknowledgements of the far side are told once.
TEST_F(PluginStreamTest, AcknowledgesWhatNothingFollowsAndDoubtsWhatIsFalse) {
  Open({.acknowledges = true});
  auto module = std::async(std::launch::async, [this] { return ReadModule(4096); });
  const std::string frame = DataFrame(7, "x");
  const std::size_t length = MakeAcknowledgement({}).size();
  std::uint64_t sent = 0;
  for (Acknowledgement told; told.received < 3 * frame.size();) {
    if (told.received == sent) {
      Send(frame);
      sent += frame.size();
    }
    const std::string answer = ReadExactly(far_.get(), length);
    EXPECT_EQ(answer.size(), length) << told.received << " of " << sent << " bytes are acknowledged";
    if (HasFailure()) break;
    told = *ReadAcknowledgement(answer.substr(gxmod::kFrameHeaderBytes));
  }
  for (int time = 0; time < 3; ++time) Send(MakeAcknowledgement({1 << 20, 0}));
  EndOfFarSide();
  EXPECT_EQ(module.get().size(), sent);
  EXPECT_EQ(diary_.Take(), "doubt; end: end of the stream; ");
}

// Strangers who connect to the module's port again and again must not make a dead far side look alive.
TEST_F(PluginStreamTest, AStrangerIsNoSignOfLife) {
  Open({.guarded = true});
  EXPECT_EQ(stream_->silence().count(), 0) << "the module does not wait yet";
  auto first = std::async(std::launch::async, [this] { return ReadOnce(16); });
  EXPECT_TRUE(Eventually([this] { return stream_->silence().count() >= 50; }));
  EXPECT_TRUE(WriteModule(MakeFrame(ConnectionType::Connect, 1, "x:1")));
  EXPECT_TRUE(WriteModule(DataFrame(1, "sixteen wrong ones and more")));
  EXPECT_EQ(first.get(), MakeFrame(ConnectionType::Close, 1, ""));
  auto second = std::async(std::launch::async, [this] { return ReadOnce(16); });
  std::chrono::milliseconds silence{};
  EXPECT_TRUE(Eventually([&] { return (silence = stream_->silence()).count() > 0; }));
  EXPECT_GE(silence.count(), 50);
  stream_->Close();
  second.get();
}

// For a stranger at its port the module gets a Close frame that the far side did not send. The Close comes
// between the far side's frames. The far side hears nothing.
TEST_F(PluginStreamTest, StrangersAreClosedAndTheFarSideHearsNothing) {
  Open({.guarded = true});
  const std::string close = MakeFrame(ConnectionType::Close, 1, "");
  const std::string list = MakeFrame(ConnectionType::ChannelList, 0, "");
  Send(DataFrame(1, "for a stranger") + kPing.substr(0, 20));
  const auto all_read = [this] {
    int unread = 0;
    return ioctl(far_.get(), TIOCOUTQ, &unread) == 0 && unread == 0;
  };
  auto module = std::async(std::launch::async, [this] { return ReadModule(3); });
  EXPECT_TRUE(Eventually(all_read));
  EXPECT_TRUE(WriteModule(MakeFrame(ConnectionType::Connect, 1, "x:1")));
  EXPECT_TRUE(WriteModule(DataFrame(1, "sixteen wrong ones and more")));
  EXPECT_TRUE(WriteModule(close));
  Send(kPing.substr(20, 2));
  EXPECT_TRUE(Eventually(all_read));
  Send(kPing.substr(22));
  EXPECT_TRUE(Eventually([this] { return diary_.frames > 0; }));
  EndOfFarSide();
  EXPECT_EQ(module.get(), close);
  EXPECT_TRUE(WriteModule(list));
  stream_->Finish("done", kPatience);
  stream_ = {};
  EXPECT_EQ(ReadToEnd(far_.get()),
            MakeFrame(kPongFrame, 0, "12345678") + list + MakeFrame(kGoodbyeFrame, 0, "done"));
}

class Unconcerned : public PluginOutput::Handler {
 public:
  void OnSendingFrame(const gxmod::FrameHeader&) override {}
  void OnFrameQueued(const gxmod::FrameHeader&) override {}
  void OnWriteFailed(const std::string&) override {}
};

std::atomic<LinePace::Clock::duration> g_line_time{};
LinePace::Clock::time_point LineTime() { return LinePace::Clock::time_point(g_line_time.load()); }

// A keystroke waits for all that the module has written and the line has not taken: a few milliseconds of a
// slow line. A reader that takes all that is there at longer intervals is not slowed down.
TEST(PluginOutputTest, LittleWaitsForASlowLine) {
  const auto [near, far] = MakeSocketPair();
  SetNonBlocking(near.get(), true);
  StopSignal stop;
  Unconcerned handler;
  PluginOutput output(near.get(), stop, handler, &LineTime);
  output.OnAcknowledgement({0, 8 << 20});
  std::uint64_t taken = 0;
  std::atomic<std::uint64_t> written{0};
  std::atomic<pid_t> writer{0};
  std::thread module([&] {
    writer = gettid();
    const std::string frame = DataFrame(7, std::string(4080, 'x'));
    while (output.Write(frame.data(), frame.size())) written += frame.size();
  });
  const auto ahead = [&] { return written - taken; };
  const auto socket_holds = [fd = near.get()] {
    int bytes = 0;
    socklen_t length = sizeof bytes;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, &length), 0);
    return bytes;
  };
  // The line takes up to `most` bytes at these intervals, and the module writes all that fits in between.
  const auto carry_until = [&, fd = far.get()](auto condition, int interval_ms, std::size_t most) {
    std::string bytes(most, '.');
    const auto turn = [&] {
      if (!IsAsleep(writer)) return false;
      if (condition()) return true;
      g_line_time = g_line_time.load() + std::chrono::milliseconds(interval_ms);
      taken += static_cast<std::uint64_t>(std::max<ssize_t>(recv(fd, bytes.data(), most, MSG_DONTWAIT), 0));
      output.OnAcknowledgement({taken, taken + (8 << 20)});
      return false;
    };
    EXPECT_TRUE(Eventually(turn, 3 * kPatience)) << ahead() << " bytes ahead";  // hundreds of turns
  };
  carry_until([&] { return taken >= 4'000'000; }, 1, 10'000);
  EXPECT_TRUE(output.line().known);
  EXPECT_LE(ahead(), 64'000U);
  carry_until([&] { return socket_holds() >= 60'000; }, 4, 1 << 20);
  carry_until([&] { return socket_holds() <= 50'000; }, 1, 10'000);
  carry_until([&] { return ahead() >= 150'000; }, 20, 1 << 20);
  stop.Raise();
  output.Close();
  module.join();
}

}  // namespace
}  // namespace gxtool
