#include "sock/sock_stream.h"

#include <sys/socket.h>

#include "base/scoped_descriptor.h"
#include "sock/keeping_tracker.h"
#include "stream/mem_buffer.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/pattern.h"
#include "support/test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Pair;

// Keeps what it receives, repeats each read that completes, and repeats each write until `enough` bytes are
// sent.
class Recorder final : public IBaseStream::IBaseHandler {
 public:
  using IBaseHandler::Handle;
  bool Handle(IBaseStream* stream, IBaseStream::NotifyType type, IBuffer* buffer,
              unsigned long length) override {
    if (type == IBaseStream::kReadStep) {
      received.append(static_cast<char*>(buffer->GetPointer()) + buffer->GetSize() - length, length);
    }
    if (type == IBaseStream::kReadDone) stream->Read(nullptr, length, kNoTimeout);
    if (type == IBaseStream::kWriteStep) sent += length;
    if (type == IBaseStream::kWriteStep) on_sent();
    if (type == IBaseStream::kWriteDone && sent < enough) stream->Write(buffer, length, kNoTimeout);
    if (type == IBaseStream::kDisconnected) reasons.push_back(static_cast<unsigned>(length));
    return goes_on;
  }

  bool goes_on = true;  // the answer
  std::size_t enough = 0;
  std::size_t sent = 0;
  std::function<void()> on_sent = [] {};
  std::string received;
  std::vector<unsigned> reasons;
};

// A stream whose clock is ahead by `ahead_ms`.
class AheadStream final : public CSockStream {
 public:
  using CSockStream::CSockStream;
  unsigned long timeleft(unsigned long now_ms) override { return CSockStream::timeleft(now_ms + ahead_ms); }

  unsigned long ahead_ms = 0;
};

// A stream over one end of a socket pair; the test holds the other end.
class SockStreamTest : public gxtest::LeakGate {
 protected:
  void SetUp() override { Restart(); }
  void TearDown() override {
    stream_->Disconnect(0);
    stream_ = nullptr;
    tracker_.tasks.clear();
    far_.Close();
    LeakGate::TearDown();
  }

  void Restart() {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    far_ = gxbase::ScopedDescriptor(ends[1]);
    stream_ = new AheadStream(IBaseStream::StreamType{0});
    stream_->SetSocket(ends[0], true);
    stream_->SetTracker(&tracker_);
    recorder_.sent = 0;
    recorder_.reasons.clear();
    stream_->Handler(&recorder_);
  }
  void Write(std::size_t length) { stream_->Write(gxtest::Pattern(length).data(), length, kNoTimeout); }

  KeepingTracker tracker_;
  Recorder recorder_;
  CRefObj<AheadStream> stream_;
  gxbase::ScopedDescriptor far_;
};

TEST_F(SockStreamTest, TaskTimeOutDisconnects) {
  LogCapture log;
  constexpr unsigned long kHourMs = 3'600'000;
  stream_->Read(nullptr, 10, 2 * kHourMs);
  ASSERT_EQ(tracker_.tasks.size(), 1U);
  stream_->ahead_ms = kHourMs;
  EXPECT_FALSE(tracker_.tasks[0]->timeout());
  stream_->ahead_ms = 2 * kHourMs;
  EXPECT_TRUE(tracker_.tasks[0]->timeout());
  tracker_.RunLast();
  EXPECT_THAT(recorder_.reasons, ElementsAre(kStreamTimeout));
  EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogError, "[CTCPStreamTask::timeout] read/write timeout")));
}

// The stream reads 64 KiB per turn from a peer that never pauses. Between the turns the reactor serves others.
TEST_F(SockStreamTest, AFloodIsReadInTurns) {
  constexpr std::size_t kTurn = 64 * 1024;
  std::string flood;
  const auto fill_socket = [&] {
    const std::string bytes = gxtest::Pattern(4096, 1, flood.size());
    while (send(far_.get(), bytes.data(), bytes.size(), 0) > 0) flood += bytes;
  };
  fill_socket();
  stream_->Read(nullptr, 25 * 4096, kNoTimeout);  // turns end in the middle of a read
  for (std::size_t turn = 1; turn <= 3; ++turn) {
    EXPECT_EQ(recorder_.received.size(), turn * kTurn);
    ASSERT_EQ(tracker_.tasks.size(), 1U) << "it waits for its next turn";
    fill_socket();
    tracker_.RunLast();
  }

  // When the far side is slow each step is a turn, also for bytes that have already left the socket.
  recorder_.goes_on = false;
  do {
    const std::size_t before = recorder_.received.size();
    ASSERT_EQ(tracker_.tasks.size(), 1U);
    tracker_.RunLast();
    EXPECT_LE(recorder_.received.size(), before + 4096);
  } while (recorder_.received.size() < flood.size() && !HasFailure());
  EXPECT_EQ(recorder_.received, flood);
}

// The reactor sends 256 KiB of a download per turn. Another thread sends as much in each call, and the reactor
// sends the rest.
TEST_F(SockStreamTest, ADownloadIsSentInTurns) {
  constexpr std::size_t kTurn = 256 * 1024;
  constexpr std::size_t kBlock = 64 * 1024;
  const auto empty_socket = [&] {
    char bytes[kBlock];
    while (recv(far_.get(), bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
  };
  recorder_.on_sent = empty_socket;
  recorder_.enough = 10 * kTurn;
  Write(kBlock);
  EXPECT_EQ(recorder_.sent, 10 * kTurn);
  EXPECT_TRUE(tracker_.tasks.empty());

  recorder_.on_sent = [] {};
  recorder_.enough = 20 * kTurn;
  Write(kBlock);
  ASSERT_EQ(tracker_.tasks.size(), 1U) << "the socket is full";
  recorder_.on_sent = empty_socket;
  empty_socket();
  for (int turn = 1; turn <= 3; ++turn) {
    const std::size_t before = recorder_.sent;
    tracker_.RunLast();
    EXPECT_EQ(recorder_.sent - before, kTurn);
    ASSERT_EQ(tracker_.tasks.size(), 1U) << "it waits for its next turn";
  }
  while (!tracker_.tasks.empty()) tracker_.RunLast();
  EXPECT_GE(recorder_.sent, recorder_.enough);

  Restart();
  recorder_.enough = 0;
  Write(3 * kTurn);
  EXPECT_EQ(recorder_.sent, kTurn);
  while (!tracker_.tasks.empty()) tracker_.RunLast();
  EXPECT_EQ(recorder_.sent, 3 * kTurn);
}

// After its last bytes the stream goes on receiving until the peer ends: closing with unread data causes a
// reset, which destroys what the peer has not read yet. Failures with the same reason code close at once.
TEST_F(SockStreamTest, OnlyAnOrderlyEndLingers) {
  Write(10);
  stream_->Read(cpy2buf("", 0).get(), 1, kNoTimeout);  // has no room
  EXPECT_THAT(recorder_.reasons, ElementsAre(0xC000));
  EXPECT_TRUE(tracker_.tasks.empty());

  Restart();
  Write(10);
  stream_->WriteEnd();
  EXPECT_THAT(recorder_.reasons, ElementsAre(0xC000));
  ASSERT_EQ(tracker_.tasks.size(), 1U);
  EXPECT_EQ(send(far_.get(), "late", 4, 0), 4);
  tracker_.RunLast();
  EXPECT_EQ(tracker_.tasks.size(), 1U) << "the peer has not ended";
  shutdown(far_.get(), SHUT_WR);
  tracker_.RunLast();
  EXPECT_TRUE(tracker_.tasks.empty());
}

}  // namespace
