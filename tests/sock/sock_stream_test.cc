#include "sock/sock_stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include "reactor/reactor.h"
#include "sock/keeping_tracker.h"
#include "stream/mem_buffer.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/pattern.h"
#include "support/test.h"

namespace {

using gxtest::Eventually;
using testing::Contains;
using testing::Pair;

// Reads for ever, as much at once as the first time, and keeps what comes.
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
    if (type == IBaseStream::kReadDone) stream->Read(nullptr, length, kNoTimeout);
    return goes_on;
  }

  std::atomic<bool> goes_on{true};  // the answer

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

// A far side that sends the next block whenever one has left, and a client that takes everything at once.
class Download final : public IBaseStream::IBaseHandler {
 public:
  Download(int client, std::function<bool()> goes_on) : client_(client), goes_on_(std::move(goes_on)) {}
  using IBaseHandler::Handle;
  bool Handle(IBaseStream* stream, IBaseStream::NotifyType type, IBuffer* buffer,
              unsigned long length) override {
    if (type == IBaseStream::kWriteStep) moved_ += length;
    if (type == IBaseStream::kWriteStep && taking_) Take();
    if (type == IBaseStream::kWriteDone && goes_on_()) stream->Write(buffer, buffer->GetSize(), kNoTimeout);
    return true;
  }
  void Start(IBaseStream& stream, std::size_t block = 64 * 1024) {
    stream.Handler(this);
    const std::string bytes = gxtest::Pattern(block);
    stream.Write(cpy2buf(bytes.data(), bytes.size()).get(), bytes.size(), kNoTimeout);
  }
  void Take() {
    char bytes[64 * 1024];
    while (recv(client_, bytes, sizeof bytes, MSG_DONTWAIT) > 0) {
    }
  }
  void TakeNothing() { taking_ = false; }
  void TakeAgain() {
    taking_ = true;
    Take();
  }
  std::size_t Moved() const { return moved_; }

 private:
  const int client_;
  const std::function<bool()> goes_on_;
  std::atomic<bool> taking_{true};
  std::atomic<std::size_t> moved_{0};
};

// Streams over one end of a socket pair; the test holds the other ends.
class SockStreamTest : public gxtest::LeakGate {
 protected:
  void TearDown() override {
    for (const int end : far_ends_) close(end);
    LeakGate::TearDown();
  }

  CRefObj<CSockStream> MakeStream(ITCPTaskTracker* tracker) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    far_ends_.push_back(far_ = ends[1]);
    CRefObj<CSockStream> stream(new CSockStream(IBaseStream::StreamType{0}));
    stream->SetSocket(ends[0], true);
    stream->SetTracker(tracker);
    return stream;
  }

  // Fills the far end's socket; what went is in sent_.
  void FillSocket() {
    const std::string bytes = gxtest::Pattern(4096, 1, sent_.size());
    while (send(far_, bytes.data(), bytes.size(), 0) > 0) sent_ += bytes;
  }

  int far_ = -1;  // the last stream's
  std::string sent_;
  std::vector<int> far_ends_;
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
    stream->Read(nullptr, 10, 20);
    ASSERT_TRUE(Eventually([&] { return !recorder.Reasons().empty(); })) << "nothing else ends the wait";
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(19));
    EXPECT_THAT(recorder.Reasons(), testing::ElementsAre(kStreamTimeout));
    EXPECT_THAT(log.Lines(), Contains(Pair(kGXModLogError, "[CTCPStreamTask::timeout] read/write timeout")));
  }
  reactor.Stop();
}

// A peer that sends without a pause is read 64 KiB at a turn; between the turns the reactor serves the others.
TEST_F(SockStreamTest, AFloodIsReadInTurns) {
  constexpr std::size_t kTurn = 64 * 1024;
  KeepingTracker tracker;
  Recorder recorder;
  const CRefObj<CSockStream> stream = MakeStream(&tracker);
  stream->Handler(&recorder);
  FillSocket();
  stream->Read(nullptr, 25 * 4096, kNoTimeout);  // not what fits into a turn
  for (std::size_t turn = 1; turn <= 3; ++turn) {
    EXPECT_EQ(recorder.Received().size(), turn * kTurn);
    ASSERT_EQ(tracker.tasks.size(), 1U) << "it waits for its next turn";
    FillSocket();
    tracker.RunLast();
  }

  // The far side is slow: each step is a turn, also when the bytes have left the socket.
  recorder.goes_on = false;
  do {
    const std::size_t before = recorder.Received().size();
    ASSERT_EQ(tracker.tasks.size(), 1U);
    tracker.RunLast();
    EXPECT_LE(recorder.Received().size(), before + 4096);
  } while (recorder.Received().size() < sent_.size() && !HasFailure());
  EXPECT_EQ(recorder.Received(), sent_);
  stream->Disconnect(0);
}

// The reactor sends 256 KiB of a download in a turn; what other threads send themselves does not count.
TEST_F(SockStreamTest, ADownloadIsSentInTurns) {
  constexpr std::size_t kTurn = 256 * 1024;
  KeepingTracker tracker;
  const CRefObj<CSockStream> stream = MakeStream(&tracker);
  std::size_t enough = 10 * kTurn;
  Download download(far_, [&] { return download.Moved() < enough; });
  download.Start(*stream);
  EXPECT_EQ(download.Moved(), enough) << "as long as each call brings little, a thread sends it itself";
  EXPECT_TRUE(tracker.tasks.empty());

  download.TakeNothing();
  enough = download.Moved() + 10 * kTurn;
  download.Start(*stream);
  ASSERT_EQ(tracker.tasks.size(), 1U) << "the socket is full";
  download.TakeAgain();
  for (int turn = 1; turn <= 3; ++turn) {
    const std::size_t before = download.Moved();
    tracker.RunLast();
    EXPECT_EQ(download.Moved() - before, kTurn);
    ASSERT_EQ(tracker.tasks.size(), 1U) << "it waits for its next turn";
  }
  while (!tracker.tasks.empty()) tracker.RunLast();
  EXPECT_GE(download.Moved(), enough);
  stream->Disconnect(0);
}

// Not even another thread's own call: it has other work to go back to.
TEST_F(SockStreamTest, NoCallSendsMoreThanATurn) {
  constexpr std::size_t kTurn = 256 * 1024;
  KeepingTracker tracker;
  const CRefObj<CSockStream> stream = MakeStream(&tracker);
  Download download(far_, [] { return false; });
  download.Start(*stream, 3 * kTurn);
  EXPECT_EQ(download.Moved(), kTurn);
  ASSERT_EQ(tracker.tasks.size(), 1U);
  while (!tracker.tasks.empty()) tracker.RunLast();
  EXPECT_EQ(download.Moved(), 3 * kTurn);
  stream->Disconnect(0);
}

// Behind the last bytes the stream goes on receiving, since a reset would take along what the peer has not got
// yet. Other ends have the same reason code, and close at once.
TEST_F(SockStreamTest, OnlyAnOrderlyEndLingers) {
  for (const bool orderly : {true, false}) {
    KeepingTracker tracker;
    Recorder recorder;
    const CRefObj<CSockStream> stream = MakeStream(&tracker);
    stream->Handler(&recorder);
    stream->Write("last words", 10, kNoTimeout);
    if (orderly) {
      stream->WriteEnd();
    } else {
      stream->Read(cpy2buf("", 0).get(), 1, kNoTimeout);  // has no room
    }
    EXPECT_THAT(recorder.Reasons(), testing::ElementsAre(0xC000));
    EXPECT_EQ(tracker.tasks.size(), orderly ? 1U : 0U);
    if (!orderly) continue;
    EXPECT_EQ(send(far_, "late", 4, 0), 4);
    tracker.RunLast();
    EXPECT_EQ(tracker.tasks.size(), 1U) << "the peer has not ended";
    shutdown(far_, SHUT_WR);
    tracker.RunLast();
    EXPECT_TRUE(tracker.tasks.empty());
  }
}

}  // namespace
