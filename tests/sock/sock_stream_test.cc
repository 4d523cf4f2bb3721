#include "sock/sock_stream.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <new>
#include <string>
#include <thread>

#include "reactor/reactor.h"
#include "sock/tcp_stream_task.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
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

std::string Pattern(std::size_t length) {
  std::string bytes(length, '\0');
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 31 + i / 251);
  return bytes;
}

// More than the socket takes at once goes out in order while the stream also reads, and everybody's end is
// heard of.
TEST_F(SockStreamTest, CarriesBothWaysThroughTheReactor) {
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  Recorder recorder;
  {
    const CRefObj<CSockStream> stream = MakeStream(&reactor);
    stream->Handler(&recorder);
    stream->Read(nullptr, 4096, kNoTimeout);
    const std::string bytes = Pattern(3'000'000);
    stream->Write(bytes.data(), bytes.size(), kNoTimeout);

    std::string received;
    ASSERT_TRUE(Eventually([&] {
      char part[65536];
      const ssize_t got = recv(far_, part, sizeof part, 0);
      if (got > 0) {
        received.append(part, static_cast<std::size_t>(got));
        send(far_, part, static_cast<std::size_t>(std::min<ssize_t>(got, 1000)), 0);
      }
      return received.size() == bytes.size();
    }));
    EXPECT_EQ(received, bytes);
    CloseFar();
    EXPECT_TRUE(Eventually([&] { return recorder.Reasons().size() == 1; }));
    EXPECT_FALSE(recorder.Received().empty());
    EXPECT_TRUE(stream->IsClosed());
    EXPECT_EQ(stream->Write(bytes.data(), 1, kNoTimeout), kNotConnected);
  }
  reactor.Stop();
}

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

// A task that cannot be queued leaves nobody waiting for it: the stream ends, and says so.
TEST_F(SockStreamTest, WithoutMemoryForATaskTheStreamEnds) {
  class FullTracker final : public ITCPTaskTracker {
   public:
    bool AddTask(const CTCPTask&) override { throw std::bad_alloc(); }
  };
  LogCapture log;
  FullTracker tracker;
  Recorder recorder;
  const CRefObj<CSockStream> stream = MakeStream(&tracker);
  stream->Handler(&recorder);
  EXPECT_EQ(stream->Read(nullptr, 10, kNoTimeout), 0U);
  EXPECT_THAT(recorder.Reasons(), testing::ElementsAre(kStreamOtherError));
  EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogError, HasSubstr("exception"))));
}

// One sender that never pauses keeps its stream readable; a timer must come through all the same.
TEST_F(SockStreamTest, EndlessSenderLeavesTheReactorToOthers) {
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  Recorder recorder;
  std::atomic<bool> done{false};
  {
    const CRefObj<CSockStream> stream = MakeStream(&reactor);
    stream->Handler(&recorder);
    const int flooding = far_;
    std::thread sender([&, flooding] {
      const std::string bytes = Pattern(65536);
      while (!done) send(flooding, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    });
    stream->Read(nullptr, 4096, kNoTimeout);
    const CRefObj<CSockStream> quiet = MakeStream(&reactor);
    Recorder quiet_recorder;
    quiet->Handler(&quiet_recorder);
    quiet->Read(nullptr, 4, kNoTimeout);
    EXPECT_EQ(send(far_, "ping", 4, 0), 4);
    EXPECT_TRUE(Eventually([&] { return quiet_recorder.Received() == "ping"; }));
    done = true;
    sender.join();
    stream->Disconnect(0);
    quiet->Disconnect(0);
    close(flooding);
    reactor.Stop();
  }
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
