#include "gx-ssh/plugin_stream.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "common/control_frames.h"
#include "common/descriptor.h"
#include "support/pattern.h"
#include "support/test.h"
#include "support/wait.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;

// Writes down what the stream tells.
class Diary : public StreamObserver {
 public:
  void OnFrameSent(const gxmod::FrameHeader&) override {
    if (on_sent) on_sent();
  }
  void OnFrameReceived(const gxmod::FrameHeader&) override { Add("frame"); }
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

 private:
  void Add(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    text_ += entry + "; ";
  }

  std::mutex mutex_;
  std::string text_;
};

// The far side is the test.
class PluginStreamTest : public testing::Test {
 protected:
  PluginStreamTest() { signal(SIGPIPE, SIG_IGN); }

  void Open(StreamSettings settings = {}, std::string_view received = {}) {
    auto [mine, theirs] = MakeSocketPair();
    far_ = std::move(theirs);
    Descriptor copy = Duplicate(mine.get());
    stream_ =
        CRefObj<PluginStream>(new PluginStream(std::move(mine), std::move(copy), received, settings, diary_));
  }

  void Send(std::string_view bytes) {
    ASSERT_EQ(write(far_.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  void EndOfFarSide() { shutdown(far_.get(), SHUT_WR); }

  // All that the module would read, at most `step` bytes per call, until the stream ends.
  std::string ReadModule(unsigned step) {
    std::string all;
    std::string chunk(step, '\0');
    unsigned got = 0;
    while (stream_->Read(chunk.data(), step, &got, 0) == kGXModOk) all.append(chunk, 0, got);
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
  const std::string frame = DataFrame(1, "0123456789");
  EXPECT_TRUE(WriteModule(frame.substr(0, 20)));
  Send(kPing);
  EndOfFarSide();
  ReadModule(4096);  // the answer waits for the end of the frame
  EXPECT_TRUE(WriteModule(frame.substr(20)));
  stream_->Finish("done", kPatience);
  stream_ = {};
  EXPECT_EQ(ReadToEnd(far_.get()),
            frame + MakeFrame(kPongFrame, 0, "12345678") + MakeFrame(kGoodbyeFrame, 0, "done"));
}

// Otherwise the answer to a frame could be counted before the frame.
TEST_F(PluginStreamTest, AFrameIsToldBeforeTheFarSideHasIt) {
  Open();
  bool early = false;
  diary_.on_sent = [&] { early = !WaitFor(far_.get(), POLLIN, 0); };
  EXPECT_TRUE(WriteModule(DataFrame(1, "x")));
  EXPECT_TRUE(early);
}

TEST_F(PluginStreamTest, AnswersThatNobodyTakesDoNotPileUp) {
  Open();
  std::string pings;
  for (int i = 0; i < 1000; ++i) pings += kPing;
  auto module = std::async(std::launch::async, [this] { return ReadModule(4096); });
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(WriteAll(far_.get(), pings));
  EndOfFarSide();
  module.get();
  auto end = std::async(std::launch::async, [this] {
    stream_->Finish("", kPatience);
    stream_ = {};
  });
  EXPECT_LT(ReadToEnd(far_.get()).size(), pings.size() * 50);
}

// Of the two that wait, only the writer may notice that the far side is gone, and has to tell.
TEST_F(PluginStreamTest, CloseAndAVanishedFarSideReleaseWhoWaits) {
  for (const bool vanishes : {false, true}) {
    Open();
    auto reader = std::async(std::launch::async, [&] { return vanishes ? "" : ReadModule(16); });
    auto writer = std::async(std::launch::async, [this] {
      while (WriteModule(DataFrame(1, std::string(60'000, 'x')))) {
      }
    });
    // The far side takes something first, so that both are surely at work.
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

// A far side that acknowledges, one frame at a time.
class AcknowledgingFarSide {
 public:
  explicit AcknowledgingFarSide(int fd) : fd_(fd) {}

  // Takes what comes until all is still for a moment; returns the bytes that count.
  std::uint64_t Take() {
    const std::uint64_t before = received;
    while (WaitFor(fd_, POLLIN, 100)) {
      const std::string header = ReadExactly(fd_, gxmod::kFrameHeaderBytes);
      if (header.size() < gxmod::kFrameHeaderBytes) break;
      const gxmod::FrameHeader frame = gxmod::DecodeFrameHeader(header.data());
      const std::string payload = ReadExactly(fd_, frame.length);
      if (frame.type == kAcknowledgementFrame) told = *ReadAcknowledgement(payload);
      if (frame.type == kPongFrame) ponged = true;
      if (frame.type == ConnectionType::Data) {
        data += payload;
        longest = std::max(longest, payload.size());
      }
      if (!IsControlFrame(frame.type)) received += header.size() + payload.size();
    }
    return received - before;
  }
  bool Acknowledge() const { return WriteAll(fd_, MakeAcknowledgement({received, 1 << 20})); }

  std::string data;
  std::size_t longest = 0;
  std::uint64_t received = 0;
  Acknowledgement told;
  bool ponged = false;

 private:
  const int fd_;
};

// While the module waits for a client, and reads nothing, what it writes must still go out, and the far side
// must be heard. The module gets all of it later.
TEST_F(PluginStreamTest, TheFarSideIsHeardWhileTheModuleDoesNotRead) {
  Open({.acknowledges = true});
  AcknowledgingFarSide far(far_.get());
  const std::string first = DataFrame(7, "first");
  Send(MakeAcknowledgement({0, 1 << 20}) + first);
  std::string read(first.size(), '\0');
  for (unsigned bytes = 0, got = 0; bytes < read.size(); bytes += got) {
    ASSERT_EQ(stream_->Read(read.data() + bytes, static_cast<unsigned>(read.size()) - bytes, &got, 0),
              kGXModOk);
  }
  const std::string payload = gxtest::Pattern(60'000, 1);
  auto module = std::async(std::launch::async, [&] { return WriteModule(DataFrame(7, payload)); });
  EXPECT_LE(far.Take(), 16U << 10) << "before anything is known of the line";
  EXPECT_EQ(far.Take(), 0U);
  EXPECT_TRUE(gxtest::Eventually([&] {
    far.Acknowledge();
    far.Take();
    return far.data.size() == payload.size();
  }));
  EXPECT_EQ(module.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(far.data, payload);
  EXPECT_LE(far.longest, 4096U);

  // Nothing is lost or out of its place that comes meanwhile, and no more may come than there is room for.
  std::string sent;
  EXPECT_TRUE(gxtest::Eventually([&] {
    const std::string frame = DataFrame(8, gxtest::Pattern(65520, 2));
    for (; first.size() + sent.size() + frame.size() <= far.told.permitted; sent += frame) {
      EXPECT_TRUE(WriteAll(far_.get(), frame + kPing));
    }
    far.Take();
    return far.told.received >= std::uint64_t{7} << 20;
  }));
  EXPECT_LT(far.told.permitted, std::uint64_t{9} << 20);
  EXPECT_TRUE(far.ponged);
  EXPECT_TRUE(gxtest::Eventually([this] { return stream_->silence().count() >= 20; })) << "somebody waits";
  auto all = std::async(std::launch::async, [this] { return ReadModule(100'000); });
  while (far.told.permitted < (std::uint64_t{11} << 20) && !HasFailure()) far.Take();
  EndOfFarSide();
  EXPECT_TRUE(all.get() == sent);
}

TEST_F(PluginStreamTest, WhatNothingFollowsIsAcknowledgedWhileTheReaderWaits) {
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
  EndOfFarSide();
  EXPECT_EQ(module.get().size(), sent);
}

TEST_F(PluginStreamTest, FalseAcknowledgementsAreToldOnce) {
  Open({.acknowledges = true});
  Send(MakeAcknowledgement({0, 1 << 20}));
  for (int time = 0; time < 3; ++time) Send(MakeAcknowledgement({1 << 20, 0}));
  EndOfFarSide();
  EXPECT_EQ(ReadModule(4096), "");
  EXPECT_EQ(diary_.Take(), "doubt; end: end of the stream; ");
}

// Whoever connects to the module's port again and again must not make a dead far side look alive.
TEST_F(PluginStreamTest, AStrangerIsNoSignOfLife) {
  Open({.guarded = true});
  EXPECT_EQ(stream_->silence().count(), 0) << "the module does not wait yet";
  const auto read_frame = [this] {
    char header[16];
    unsigned got = 0;
    return stream_->Read(header, sizeof header, &got, 0);
  };
  auto first = std::async(std::launch::async, read_frame);
  EXPECT_TRUE(gxtest::Eventually([this] { return stream_->silence().count() >= 50; }));
  EXPECT_TRUE(WriteModule(MakeFrame(ConnectionType::Connect, 1, "x:1")));
  EXPECT_TRUE(WriteModule(DataFrame(1, "sixteen wrong ones and more")));
  EXPECT_EQ(first.get(), kGXModOk);
  auto second = std::async(std::launch::async, read_frame);
  std::chrono::milliseconds silence{};
  EXPECT_TRUE(gxtest::Eventually([&] { return (silence = stream_->silence()).count() > 0; }));
  EXPECT_GE(silence.count(), 50);
  stream_->Close();
  second.get();
}

// A stranger at the module's port: the module hears a Close that the far side never sent, between its frames,
// even while it waits for the far side; the far side hears nothing.
TEST_F(PluginStreamTest, StrangersAreClosedAndTheFarSideHearsNothing) {
  Open({.guarded = true});
  const std::string close = MakeFrame(ConnectionType::Close, 1, "");
  const std::string list = MakeFrame(ConnectionType::ChannelList, 0, "");
  const auto come = [this, &close] {
    EXPECT_TRUE(WriteModule(MakeFrame(ConnectionType::Connect, 1, "x:1")));
    EXPECT_TRUE(WriteModule(DataFrame(1, "sixteen wrong ones and more")));
    EXPECT_TRUE(WriteModule(close));
  };
  Send(DataFrame(1, "for a stranger") + kPing.substr(0, 20));
  const auto all_read = [this] {
    int unread = 0;
    return ioctl(far_.get(), TIOCOUTQ, &unread) == 0 && unread == 0;
  };
  auto module = std::async(std::launch::async, [this] { return ReadModule(3); });
  EXPECT_TRUE(gxtest::Eventually(all_read));
  come();
  Send(kPing.substr(20, 2));
  EXPECT_TRUE(gxtest::Eventually(all_read));
  Send(kPing.substr(22));
  EXPECT_TRUE(gxtest::Eventually([this] { return diary_.Take().find("frame") != std::string::npos; }));
  come();
  EXPECT_TRUE(gxtest::Eventually([this] { return diary_.Take().find("frame") != std::string::npos; }));
  EndOfFarSide();
  EXPECT_EQ(module.get(), close + close);
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
// slow line. A fast one gets enough to work on for longer.
TEST(PluginOutputTest, LittleWaitsForASlowLine) {
  const auto [near, far] = MakeSocketPair();
  SetNonBlocking(near.get(), true);
  StopSignal stop;
  Unconcerned handler;
  PluginOutput output(near.get(), stop, handler, &LineTime);
  std::atomic<std::size_t> written{0};
  std::thread module([&] {
    const std::string frame = DataFrame(7, std::string(4080, 'x'));
    while (output.Write(frame.data(), frame.size())) written += frame.size();
  });
  std::size_t read = 0;
  const auto carry = [&](std::size_t bytes_in_a_ms) {
    g_line_time = g_line_time.load() + std::chrono::milliseconds(1);
    read += ReadExactly(far.get(), bytes_in_a_ms).size();
  };
  const auto carry_much = [&] {
    if (written >= read + 150'000) return true;
    for (int time = 0; time < 20; ++time) carry(200'000);
    return false;
  };
  for (const std::size_t bytes : {250, 10'000, 1'000}) {
    for (const std::size_t enough = read + 4'000'000; read < enough;) carry(bytes);
    EXPECT_LE(written, read + 100'000) << bytes;
    EXPECT_TRUE(gxtest::Eventually(carry_much)) << "behind " << bytes;
  }
  stop.Raise();
  output.Close();
  module.join();
}

}  // namespace
}  // namespace gxtool
