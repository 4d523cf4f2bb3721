#include "stream/base_stream.h"

#include "base/clock.h"
#include "stream/mem_buffer.h"
#include "support/log_capture.h"
#include "support/pattern.h"
#include "support/test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using Story = std::vector<std::string>;

constexpr long kUnlimited = std::numeric_limits<long>::max();

// A transport in memory that cuts, waits and fails as a test tells it to, and writes down what it is told.
class FakeStream : public CBaseStream {
 public:
  explicit FakeStream(bool connected) : CBaseStream(/*type=*/5, connected) {}

  std::string incoming;      // what can be read
  std::string sent;          // what was written
  long piece = kUnlimited;   // the most bytes that one operation moves
  long credit = kUnlimited;  // the bytes that writes may still take
  int fails_with = 0;        // the errno with which every operation fails
  bool steps = true;         // what was read may be told
  bool empties = false;      // the handler has no more use for what it was told
  int reads = 0;             // that moved something
  std::string told;          // by the steps of reads
  Story story;               // of hooks and disconnects
  std::function<void(const std::string& event)> on_event = [](const std::string&) {};
  std::function<void()> on_busy = [] {};  // an operation found nothing to move and is about to return

  using CBaseStream::SetConnected;

  bool Disconnect_impl(unsigned int reason) override {
    return CBaseStream::Disconnect_impl(reason) && Note("disconnect", reason);
  }
  bool read(char* data, long length, long& count, long timeout_ms) override {
    if (!peek(data, length, count, timeout_ms)) return false;
    incoming.erase(0, static_cast<std::size_t>(count));
    if (count != 0) ++reads;
    return true;
  }
  bool peek(char* data, long length, long& count, long) override {
    count = std::min({length, piece, static_cast<long>(incoming.size())});
    std::memcpy(data, incoming.data(), static_cast<std::size_t>(count));
    return Result(count);
  }
  bool write(const char* data, long length, long& count, long, long) override {
    count = std::min({length, piece, credit});
    sent.append(data, static_cast<std::size_t>(count));
    credit -= count;
    return Result(count);
  }
  bool read_done(IBuffer*, unsigned long length) override { return Note("read done", length); }
  bool write_done(IBuffer*, unsigned long length) override { return Note("write done", length); }
  bool read_step(IBuffer* buffer, unsigned long length) override {
    told.append(static_cast<char*>(buffer->GetPointer()) + buffer->GetSize() - length, length);
    if (empties) buffer->SetSize(0);
    return Note("read", length);
  }
  bool may_step() override { return steps; }
  bool write_step(IBuffer*, unsigned long length) override { return Note("wrote", length); }

 private:
  bool Result(long count) {
    if (count == 0) on_busy();
    errno = fails_with;
    return fails_with == 0;
  }
  bool Note(const char* what, unsigned long figure) {
    story.push_back(std::string(what) + ' ' + std::to_string(figure));
    on_event(story.back());
    return true;
  }
};

std::string Text(const CRefObj<IBuffer>& buffer) {
  return {static_cast<const char*>(buffer->GetPointer()), buffer->GetSize()};
}

CRefObj<IBuffer> Room(std::size_t size) { return g_pMemAlloctor->GetFreeBuffer(size); }

class BaseStreamTest : public testing::Test {
 protected:
  // A fresh stream, connected unless told otherwise.
  void Restart(bool connected = true) { stream_ = new FakeStream(connected); }
  void SetUp() override { Restart(); }

  unsigned long Send(const std::string& text, unsigned long timeout_ms = kNoTimeout) {
    return stream_->Write(text.data(), text.size(), timeout_ms);
  }

  LogCapture log_;
  CRefObj<FakeStream> stream_;
};

TEST_F(BaseStreamTest, RequestsCompleteInOrderHoweverTheTransportCuts) {
  for (const long piece : {1L, 2L, 4L, kUnlimited}) {
    Restart();
    stream_->piece = piece;
    stream_->incoming = "hello, world";
    const CRefObj<IBuffer> first = cpy2buf("> ", 2);
    const CRefObj<IBuffer> second = Room(7);
    first->Realloc(7);
    EXPECT_EQ(stream_->Read(first.get(), 5, kNoTimeout), 5U);
    EXPECT_EQ(stream_->Read(second.get(), 7, kNoTimeout), 7U);
    EXPECT_EQ(Text(first), "> hello") << "a read appends";
    EXPECT_EQ(Text(second), ", world");

    IBaseStream::_WRITE_BUF list[] = {{first.get(), 7}, {second.get(), 3}};
    EXPECT_EQ(stream_->Write(list, 2, kNoTimeout), 10U);
    EXPECT_EQ(stream_->Write(list, 0, kNoTimeout), 0U);
    EXPECT_EQ(Send("!"), 1U);
    EXPECT_EQ(stream_->sent, "> hello, w!");

    Story done;
    for (const std::string& event : stream_->story) {
      if (event.find("done") != std::string::npos) done.push_back(event);
    }
    EXPECT_THAT(done,
                ElementsAre("read done 5", "read done 7", "write done 7", "write done 3", "write done 1"));
  }
}

TEST_F(BaseStreamTest, WaitsForTheTransportAndGoesOn) {
  stream_->credit = 2;
  EXPECT_EQ(Send("hello"), 2U);
  EXPECT_EQ(Send("!"), 0U);
  EXPECT_EQ(stream_->Read(nullptr, 4, kNoTimeout), 0U);
  stream_->incoming = "abc";
  EXPECT_EQ(stream_->RecvRout(true), 3U);
  stream_->credit = kUnlimited;
  EXPECT_EQ(stream_->SendRout(true), 4U);
  stream_->incoming = "de";
  EXPECT_EQ(stream_->RecvRout(true), 1U);
  EXPECT_EQ(stream_->sent, "hello!");
  EXPECT_EQ(stream_->incoming, "e");
  EXPECT_THAT(stream_->story, ElementsAre("wrote 2", "read 3", "wrote 3", "write done 5", "wrote 1",
                                          "write done 1", "read 1", "read done 4"));
}

// A handler makes a frame of each step. To the far side that looks like one read of 4,096 bytes after the
// other.
TEST_F(BaseStreamTest, TellsInStepsWhatItReadsIntoItsOwnBuffer) {
  for (const bool empties : {false, true}) {
    Restart();
    stream_->empties = empties;
    const std::string bytes = gxtest::Pattern(17'000);
    stream_->incoming = bytes.substr(0, 10'000);
    stream_->on_event = [this](const std::string&) { stream_->steps = stream_->story.size() != 1; };
    EXPECT_EQ(stream_->Read(nullptr, 16'384, kNoTimeout), 4096U);
    EXPECT_EQ(stream_->RecvRout(true), 0U) << "the transport does not want another step";
    stream_->steps = true;
    EXPECT_EQ(stream_->RecvRout(true), 10'000U - 4096U);
    EXPECT_EQ(stream_->reads, 1);
    stream_->incoming = bytes.substr(10'000);
    EXPECT_EQ(stream_->RecvRout(true), 6384U);
    EXPECT_EQ(stream_->reads, 2);
    EXPECT_THAT(stream_->story, ElementsAre("read 4096", "read 4096", "read 1808", "read 2288", "read 4096",
                                            "read done 16384"));
    EXPECT_TRUE(stream_->told == bytes.substr(0, 16'384));
  }
}

// Counts the buffers that there are, and has none when told so.
class CountingAllocator final : public CMemAlloctorEx<CMemBuffer> {
 public:
  int alive = 0;
  bool refuses = false;
  CRefObj<IBuffer> CreateBuffer(std::size_t size) override {
    if (refuses) return {};
    ++alive;
    return CMemAlloctorEx::CreateBuffer(size);
  }
  bool FreeBuff(IBuffer* buffer) override {
    --alive;
    return CMemAlloctorEx::FreeBuff(buffer);
  }
};

// Most connections wait most of the time.
TEST_F(BaseStreamTest, AWaitForNothingBegunTakesNoBuffer) {
  const CRefObj<CountingAllocator> allocator(new CountingAllocator);
  for (const bool empties : {false, true}) {
    Restart();
    stream_->SetMemAlloc(allocator.get());
    stream_->empties = empties;
    stream_->Read(nullptr, 8, kNoTimeout);
    EXPECT_EQ(allocator->alive, 0);
    stream_->incoming = "abc";
    stream_->RecvRout(true);
    EXPECT_EQ(allocator->alive, empties ? 0 : 1);
    stream_->incoming = "defgh";
    stream_->RecvRout(true);
    EXPECT_EQ(stream_->told, "abcdefgh");
    EXPECT_EQ(stream_->story.back(), "read done 8");
    EXPECT_EQ(allocator->alive, 0);
  }
  stream_->Read(nullptr, 8, kNoTimeout);
  allocator->refuses = true;
  stream_->RecvRout(true);
  EXPECT_EQ(stream_->story.back(), "disconnect 57349");
  EXPECT_THAT(log_.Lines(), ElementsAre(Pair(kGXModLogError, HasSubstr("no memory"))));
}

// A buffer smaller than the request is filled again when its handler empties it. Short frames cost a system
// call each, so a short step is followed by full ones.
TEST_F(BaseStreamTest, AnEmptiedBufferIsFilledAgainInFullSteps) {
  const CRefObj<IMemAlloctor> small(new CMemAlloctorEx<CMemBuffer>(/*max_buffer_size=*/8192));
  for (const bool empties : {false, true}) {
    Restart();
    stream_->SetMemAlloc(small.get());
    stream_->empties = empties;
    stream_->Read(nullptr, 20'480, kNoTimeout);
    const std::string bytes = gxtest::Pattern(20'480);
    for (const std::string& part : {bytes.substr(0, 1000), bytes.substr(1000)}) {
      stream_->incoming = part;
      stream_->RecvRout(true);
    }
    if (!empties) {
      EXPECT_EQ(stream_->story.back(), "disconnect 49152") << "no room";
      EXPECT_TRUE(stream_->told == bytes.substr(0, 8192));
    }
  }
  EXPECT_TRUE(stream_->told == gxtest::Pattern(20'480));
  EXPECT_THAT(stream_->story, ElementsAre("read 1000", "read 3096", "read 4096", "read 4096", "read 4096",
                                          "read 4096", "read done 20480"));
}

// The reactor calls while the operation that asked for the call has not returned yet.
TEST_F(BaseStreamTest, AWakeUpDuringTheLastOperationIsNotLost) {
  stream_->on_busy = [this] {
    stream_->incoming = "ab";
    stream_->credit = 1;
    std::thread([this] {
      EXPECT_EQ(stream_->RecvRout(true), 0U);
      EXPECT_EQ(stream_->SendRout(true), 0U);
    }).join();
  };
  const CRefObj<IBuffer> buffer = Room(2);
  EXPECT_EQ(stream_->Read(buffer.get(), 2, kNoTimeout), 2U);
  EXPECT_EQ(Text(buffer), "ab");
  stream_->credit = 0;
  EXPECT_EQ(Send("xyz"), 3U);
}

TEST_F(BaseStreamTest, TheEmptyWriteEndsTheStreamBehindQueuedData) {
  stream_->credit = 2;
  Send("hello");
  EXPECT_EQ(stream_->Write(static_cast<const void*>(nullptr), 0, kNoTimeout), 0U);
  EXPECT_TRUE(stream_->IsConnect());
  stream_->credit = kUnlimited;
  EXPECT_EQ(stream_->SendRout(true), 3U);
  EXPECT_EQ(stream_->story.back(), "disconnect 49152");
  EXPECT_EQ(stream_->sent, "hello");

  Restart();
  EXPECT_EQ(stream_->WriteEnd(), 0U);
  EXPECT_THAT(stream_->story, ElementsAre("disconnect 49152"));
}

// The transport acts on a missed deadline; the stream tells which one it was.
TEST_F(BaseStreamTest, TheNextDeadlineIsThatOfTheConnectThenOfAReadThenOfAWrite) {
  Restart(/*connected=*/false);
  EXPECT_EQ(stream_->timeleft(gettickcount()), kNoTimeout);
  stream_->SetConnectTimeout(1000, 1, kNoTimeout);
  EXPECT_TRUE(stream_->timeout(gettickcount() + 1000));
  stream_->SetConnected(true);
  const unsigned long now = gettickcount();
  EXPECT_EQ(stream_->timeleft(now), kNoTimeout);
  stream_->credit = 0;
  Send("x", 60000);
  EXPECT_GT(stream_->timeleft(now), 30000U);
  EXPECT_LE(stream_->timeleft(gettickcount()), 60000U);
  stream_->SetConnectTimeout(1000, 1, 900000);  // and whatever a later request says
  stream_->Read(nullptr, 1, 0);
  EXPECT_GT(stream_->timeleft(now + 100000), 700000U) << "the write's deadline has passed, the read's counts";
  EXPECT_TRUE(stream_->timeout(now + 1000000));
  stream_->incoming = "a";
  stream_->on_event = [&](const std::string& event) {
    if (event == "read 1") stream_->timeout(now + 100000);  // the read has its bytes
  };
  stream_->RecvRout(true);
  EXPECT_THAT(log_.Lines(), ElementsAre(Pair(kGXModLogError, "[basestream] connect server timeout, 1000"),
                                        Pair(kGXModLogError, "[basestream] read data timeout, 900000"),
                                        Pair(kGXModLogError, "[basestream] write data timeout, 60000")));
  EXPECT_TRUE(stream_->IsConnect());
  for (const bool receive : {true, false}) {
    Restart();
    receive ? stream_->Read(nullptr, 4, 0) : Send("x", 0);
    EXPECT_THAT(stream_->story, ElementsAre("disconnect 57348"));
    EXPECT_EQ(log_.Lines().size(), 1U);
  }
}

TEST_F(BaseStreamTest, EachFailureHasItsCodeAndFreesTheEntrance) {
  const CRefObj<IBuffer> half = cpy2buf("half", 4);
  half->Realloc(8);
  stream_->incoming = "abcdefgh";
  stream_->Read(half.get(), 5, kNoTimeout);
  EXPECT_THAT(stream_->story, ElementsAre("disconnect 49152")) << "no room";

  const std::pair<int, const char*> failures[] = {{EAGAIN, "disconnect 49152"},
                                                  {EHOSTUNREACH, "disconnect 57348"},
                                                  {ETIMEDOUT, "disconnect 57351"},
                                                  {ECONNRESET, "disconnect 57448"},
                                                  {EPIPE, "disconnect 58343"}};
  for (const auto& [error, story] : failures) {
    for (const bool receive : {true, false}) {
      Restart();
      stream_->fails_with = error;
      EXPECT_EQ(receive ? stream_->Read(nullptr, 1, kNoTimeout) : Send("x"), 0U);
      EXPECT_THAT(stream_->story, ElementsAre(story)) << std::strerror(error);
      stream_->fails_with = 0;
      stream_->incoming = "x";
      stream_->SetConnected(true);
      EXPECT_EQ(receive ? stream_->RecvRout(true) : stream_->SendRout(true), 1U);
    }
  }
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(BaseStreamTest, NothingIsQueuedThatCannotBeDone) {
  EXPECT_EQ(stream_->Read(nullptr, 0, kNoTimeout), 0U);
  stream_->incoming = "abcdef";
  EXPECT_EQ(stream_->RecvRout(true), 0U);

  // A hook that disconnects: its handler shall hear of nothing more.
  stream_->piece = 2;
  stream_->story.clear();
  stream_->on_event = [&](const std::string& event) {
    if (event == "read 2") stream_->Disconnect(7);
  };
  const CRefObj<IBuffer> buffer = Room(6);
  EXPECT_EQ(stream_->Read(buffer.get(), 6, kNoTimeout), 2U);
  EXPECT_THAT(stream_->story, ElementsAre("read 2", "disconnect 7"));
  EXPECT_FALSE(stream_->Disconnect(8));

  IBaseStream::_WRITE_BUF list{buffer.get(), 1};
  for (const unsigned long result :
       {stream_->Read(buffer.get(), 1, kNoTimeout), stream_->Write(&list, 1, kNoTimeout),
        stream_->Write(buffer.get(), 1, kNoTimeout), stream_->WriteEnd(), stream_->RecvRout(true),
        stream_->SendRout(true)}) {
    EXPECT_EQ(result, kNotConnected);
  }
}

// A hook that throws ends the stream, since the bytes that it was not told of are lost. The direction is free
// again: the next request is served.
TEST_F(BaseStreamTest, AnExceptionOutOfAHookEndsTheStreamAlone) {
  for (const char* place : {"read 1", "read done 1", "wrote 1", "write done 1"}) {
    Restart();
    stream_->incoming = "x";
    stream_->on_event = [&](const std::string& event) {
      if (event == place) throw std::bad_alloc();
    };
    stream_->Read(nullptr, 1, kNoTimeout);
    Send("x");
    EXPECT_EQ(stream_->story.back(), "disconnect 58343") << place;
    EXPECT_THAT(log_.Lines(), ElementsAre(Pair(kGXModLogError, HasSubstr("exception"))));
    stream_->SetConnected(true);
    stream_->on_event = [](const std::string&) {};
    stream_->incoming = "y";
    stream_->Read(nullptr, 1, kNoTimeout);
    EXPECT_EQ(stream_->incoming, "") << "the entrance is still held: " << place;
    EXPECT_EQ(Send("y"), 1U) << "the entrance is still held: " << place;
  }
}

}  // namespace
