#include "sock/sock_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "reactor/reactor.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/pattern.h"
#include "support/wait.h"

namespace {

using gxtest::Eventually;
using testing::Contains;
using testing::HasSubstr;
using testing::Pair;

// Reads for ever into one buffer and keeps what comes.
class Recorder final : public IBaseStream::IBaseHandler {
 public:
  using IBaseHandler::Handle;
  bool Handle(IBaseStream* stream, IBaseStream::NotifyType type, IBuffer* buffer,
              unsigned long length) override {
    {
      const std::lock_guard lock(mutex_);
      if (type == IBaseStream::kReadStep) {
        received_.append(static_cast<char*>(buffer->GetPointer()) + buffer->GetSize() - length, length);
      }
      if (type == IBaseStream::kDisconnected) reasons_.push_back(static_cast<unsigned>(length));
    }
    if (type == IBaseStream::kReadDone) {
      buffer->SetSize(0);
      stream->Read(buffer, buffer->GetBufferSize(), kNoTimeout);
    }
    return true;
  }

  std::string Received() {
    const std::lock_guard lock(mutex_);
    return received_;
  }
  std::vector<unsigned> Reasons() {
    const std::lock_guard lock(mutex_);
    return reasons_;
  }

 private:
  std::mutex mutex_;
  std::string received_;
  std::vector<unsigned> reasons_;
};

// A stream over one end of a socket pair; the test holds the other end.
class SockStreamTest : public gxtest::LeakGate {
 protected:
  void TearDown() override {
    if (far_ >= 0) CloseFar();
    LeakGate::TearDown();
  }

  CRefObj<CSockStream> MakeStream(ITCPTaskTracker* tracker) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    far_ = ends[1];
    CRefObj<CSockStream> stream(new CSockStream(IBaseStream::StreamType{0}));
    stream->SetSocket(ends[0], true);
    stream->SetTracker(tracker);
    return stream;
  }

  void CloseFar() {
    close(far_);
    far_ = -1;
  }

  int far_ = -1;
};

TEST_F(SockStreamTest, TaskTimeOutDisconnects) {
  LogCapture log;
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  Recorder recorder;
  {
    const CRefObj<CSockStream> stream = MakeStream(&reactor);
    stream->Handler(&recorder);
    const auto before = std::chrono::steady_clock::now();
    stream->Read(nullptr, 10, 200);
    ASSERT_TRUE(Eventually([&] { return !recorder.Reasons().empty(); })) << "nothing else ends the wait";
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(199));
    EXPECT_THAT(recorder.Reasons(), testing::ElementsAre(kStreamTimeout));
    EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogError, "[CTCPStreamTask::timeout] read/write timeout")));
  }
  reactor.Stop();
}

// One sender that never pauses keeps its stream readable; the reactor must get back to the others all the same.
TEST_F(SockStreamTest, AFloodIsReadInBursts) {
  class CountingTracker final : public ITCPTaskTracker {
   public:
    bool AddTask(const CTCPTask&) override { return ++tasks > 0; }
    std::size_t tasks = 0;
  };
  constexpr std::size_t kBurst = 72 * 1024;  // with what is read ahead
  CountingTracker tracker;
  Recorder recorder;
  const CRefObj<CSockStream> stream = MakeStream(&tracker);
  stream->Handler(&recorder);
  const std::string bytes = gxtest::Pattern(1'000'000);
  std::size_t sent = 0;
  const auto fill_socket = [&] {
    for (ssize_t took = 0; took >= 0; took = send(far_, &bytes[sent], 4096, 0)) {
      sent += static_cast<std::size_t>(took);
    }
  };
  fill_socket();
  stream->Read(nullptr, 4096, kNoTimeout);
  for (std::size_t turn = 1; turn <= 3; ++turn) {
    EXPECT_LE(recorder.Received().size(), turn * kBurst);
    EXPECT_EQ(tracker.tasks, turn) << "it waits for its next turn";
    fill_socket();
    stream->do_op(kSelectReadable);
  }
  EXPECT_EQ(recorder.Received(), bytes.substr(0, recorder.Received().size()));
  stream->Disconnect(0);
}

TEST_F(SockStreamTest, WorksWithoutATracker) {
  LogCapture log;
  const CRefObj<CSockStream> stream = MakeStream(nullptr);
  char bytes[16];
  long got = 77;
  EXPECT_FALSE(stream->read(bytes, sizeof bytes, got, 0));
  EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogTrace,
                                         "[CSockstream] read failed " + std::to_string(EAGAIN) + " @3 396")));

  EXPECT_FALSE(stream->peek(bytes, sizeof bytes, got, 1));
  EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogTrace, HasSubstr(", select 0 @4 429"))));

  EXPECT_EQ(send(far_, "abc", 3, 0), 3);
  EXPECT_TRUE(stream->peek(bytes, sizeof bytes, got, -1));
  EXPECT_EQ(got, 3);
  EXPECT_TRUE(stream->read(bytes, sizeof bytes, got, 0)) << "a peek leaves the bytes where they are";
  EXPECT_EQ(got, 3);

  CloseFar();
  log.Lines();
  EXPECT_FALSE(stream->read(bytes, sizeof bytes, got, 0));
  EXPECT_TRUE(log.Lines().empty()) << "an orderly end is nothing to log";
  stream->Disconnect(0);
}

}  // namespace
