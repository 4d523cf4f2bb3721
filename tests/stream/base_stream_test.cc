#include "stream/base_stream.h"

#include "base/clock.h"
#include "stream/mem_buffer.h"
#include "support/log_capture.h"
#include "support/pattern.h"
#include "support/test.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

constexpr long kUnlimited = std::numeric_limits<long>::max();

// A transport in memory. The test says how much an operation moves and whether it fails; `story` lists what the
// stream reports.
class FakeStream : public CBaseStream {
 public:
  explicit FakeStream(bool connected) : CBaseStream(/*type=*/5, connected) {}

  std::string incoming;            // what can be read
  std::string sent;                // what was written
  long piece = kUnlimited;         // the most bytes that one operation moves
  long credit = kUnlimited;        // the bytes that writes may still take
  int fails_with = 0;              // the errno with which every operation fails
  bool steps = true;               // the transport accepts another step
  bool empties = false;            // the handler empties the buffer at each step
  std::string told;                // the bytes that the steps of reads reported
  std::vector<std::string> story;  // of hooks and disconnects
  std::function<void(const std::string& event)> on_event = [](const std::string&) {};
  std::function<void()> on_busy = [] {};  // called when an operation has nothing to move

  using CBaseStream::SetConnected;

  bool Disconnect_impl(unsigned int reason) override {
    return CBaseStream::Disconnect_impl(reason) && Note("disconnect", reason);
  }
  bool read(char* data, long length, long& count, long timeout_ms) override {
    if (!peek(data, length, count, timeout_ms)) return false;
    incoming.erase(0, static_cast<std::size_t>(count));
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

    const auto is_step = [](const std::string& event) { return event.find("done") == std::string::npos; };
    std::erase_if(stream_->story, is_step);
    EXPECT_THAT(stream_->story,
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
  EXPECT_EQ(stream_->incoming, "e");
  stream_->credit = 0;
  Send("?");
  EXPECT_EQ(stream_->Write(static_cast<const void*>(nullptr), 0, kNoTimeout), 0U) << "the empty write";
  EXPECT_TRUE(stream_->IsConnect()) << "it ends the stream behind what was queued before";
  stream_->credit = kUnlimited;
  EXPECT_EQ(stream_->SendRout(true), 1U);
  EXPECT_EQ(stream_->sent, "hello!?");
  EXPECT_THAT(stream_->story,
              ElementsAre("wrote 2", "read 3", "wrote 3", "write done 5", "wrote 1", "write done 1", "read 1",
                          "read done 4", "wrote 1", "write done 1", "disconnect 49152"));
}

// The handler makes a frame of each step. A buffer smaller than the request is filled again when the handler
// empties it. Short frames cost a system call each, so a short step is followed by full ones.
TEST_F(BaseStreamTest, AnEmptiedBufferIsFilledAgainInFullSteps) {
  const CRefObj<IMemAlloctor> small(new CMemAlloctorEx<CMemBuffer>(/*max_buffer_size=*/8192));
  for (const bool empties : {false, true}) {
    Restart();
    stream_->SetMemAlloc(small.get());
    stream_->empties = empties;
    stream_->on_event = [this](const std::string&) { stream_->steps = stream_->story.size() != 2; };
    stream_->Read(nullptr, 20'480, kNoTimeout);
    const std::string bytes = gxtest::Pattern(20'480);
    for (const std::string& part : {bytes.substr(0, 1000), bytes.substr(1000)}) {
      stream_->incoming = part;
      stream_->RecvRout(true);
    }
    EXPECT_EQ(stream_->story.size(), 2U) << "the transport does not want another step";
    stream_->steps = true;
    stream_->RecvRout(true);
    if (!empties) {
      EXPECT_EQ(stream_->story.back(), "disconnect 49152") << "no room";
      EXPECT_TRUE(stream_->told == bytes.substr(0, 8192));
    }
  }
  EXPECT_TRUE(stream_->told == gxtest::Pattern(20'480));
  EXPECT_THAT(stream_->story, ElementsAre("read 1000", "read 3096", "read 4096", "read 4096", "read 4096",
                                          "read 4096", "read done 20480"));
}

// The reactor reports a ready transport while the last operation on it has not returned yet.
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

// The transport asks how much time is left. The stream logs which deadline has passed.
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
  stream_->SetConnectTimeout(1000, 1, 900000);  // in place of the limit that a later request names
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

// A hook that throws ends the stream, too, because it has missed bytes. After each failure both directions
// serve the next requests.
TEST_F(BaseStreamTest, EachFailureHasItsCodeAndFreesTheEntrance) {
  const struct {
    int error;
    const char* throws_at;
    std::string code;
  } failures[] = {{EAGAIN, "", "49152"},       {EHOSTUNREACH, "", "57348"}, {ETIMEDOUT, "", "57351"},
                  {ECONNRESET, "", "57448"},   {EPIPE, "", "58343"},        {0, "read 1", "58343"},
                  {0, "read done 1", "58343"}, {0, "wrote 1", "58343"},     {0, "write done 1", "58343"}};
  for (const auto& failure : failures) {
    SCOPED_TRACE(std::strerror(failure.error) + std::string(failure.throws_at));
    Restart();
    stream_->incoming = "xyz";
    stream_->fails_with = failure.error;
    stream_->on_event = [&](const std::string& event) {
      if (event == failure.throws_at) throw std::bad_alloc();
    };
    stream_->Read(nullptr, 1, kNoTimeout);
    stream_->SetConnected(true);
    Send("x");
    EXPECT_EQ(std::count(stream_->story.begin(), stream_->story.end(), "disconnect " + failure.code),
              failure.error != 0 ? 2 : 1);
    const testing::Matcher<LogKeeper::Line> line = Pair(kGXModLogError, HasSubstr("exception"));
    EXPECT_THAT(log_.Lines(), testing::Contains(line).Times(failure.error != 0 ? 0 : 1));
    stream_->SetConnected(true);
    stream_->fails_with = 0;
    stream_->on_event = [](const std::string&) {};
    stream_->Read(nullptr, 2, kNoTimeout);
    EXPECT_EQ(stream_->incoming, "") << "one byte for the first request, two for the second";
    EXPECT_NE(Send("y"), 0U);
  }
}

TEST_F(BaseStreamTest, NothingIsQueuedThatCannotBeDone) {
  stream_->Read(nullptr, 8, kNoTimeout);
  stream_->SetMemAlloc(nullptr);
  stream_->RecvRout(true);
  EXPECT_THAT(stream_->story, ElementsAre("disconnect 57349")) << "no buffer to read into";

  Restart();
  EXPECT_EQ(stream_->Read(nullptr, 0, kNoTimeout), 0U);
  stream_->incoming = "abcdef";
  // After a hook has disconnected the stream the handler is told nothing more.
  stream_->piece = 2;
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

}  // namespace
