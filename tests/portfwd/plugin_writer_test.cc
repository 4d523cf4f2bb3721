#include "portfwd/plugin_writer.h"

#include <unistd.h>

#include "base/clock.h"
#include "support/plugin_stream.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait.h"

namespace {

enum Result { kTakes, kTakesNothing, kFails };

// A host's stream that takes one byte per call unless the test says otherwise.
class ByteStream final : public gxtest::PluginStream {
 public:
  std::uint32_t Write(const void* data, unsigned, unsigned* written, unsigned) override {
    const Result result = on_write();
    *written = result == kTakes ? 1 : 0;
    taken.append(static_cast<const char*>(data), *written);
    return result == kFails ? 1 : 0;
  }

  std::string taken;
  std::function<Result()> on_write = [] { return kTakes; };
};

class PluginWriterTest : public testing::Test {
 protected:
  bool Write(const std::string& frame) { return writer_->WriteFrame(frame.data(), frame.size()); }

  void Restart(std::function<Result()> on_write) {
    stream_ = CRefObj<ByteStream>(new ByteStream);
    stream_->on_write = std::move(on_write);
    writer_ = std::make_unique<CPluginWriter>(stream_.get(), flow_);
  }

  // Its clock stands at 0, and no client counts as stalled, so Look tells the time of the running Write.
  CFlowControl flow_{{.stall_ms = 1ULL << 60}, [] { return std::uint64_t{0}; }};
  CRefObj<ByteStream> stream_;
  std::unique_ptr<CPluginWriter> writer_;
};

TEST_F(PluginWriterTest, AFrameIsNeverCutByAnother) {
  std::thread other;
  Restart([&] {
    if (stream_->taken.size() != 1) return kTakes;
    std::promise<pid_t> id;
    other = std::thread([&] {
      id.set_value(gettid());
      Write("second");
    });
    const std::string state = "/proc/self/task/" + std::to_string(id.get_future().get()) + "/stat";
    const auto waits_or_has_ended = [&] { return FileText(state).find(") R ") == std::string::npos; };
    return gxtest::Eventually(waits_or_has_ended) ? kTakes : kFails;
  });
  EXPECT_FALSE(Write("first")) << "it took several calls";
  other.join();
  EXPECT_EQ(stream_->taken, "firstsecond");
}

// After a frame that is cut off the far side cannot find the begin of the next one.
TEST_F(PluginWriterTest, NothingFollowsAFrameThatWasCutOff) {
  for (const bool throws : {false, true}) {
    for (std::size_t offset = 0; offset < 5; ++offset) {
      Restart([&, once = true]() mutable {
        if (stream_->taken.size() != offset || !std::exchange(once, false)) return kTakes;
        if (throws) throw std::bad_alloc();
        return kFails;
      });
      if (throws) {
        EXPECT_THROW(Write("first"), std::bad_alloc);
      } else {
        Write("first");
      }
      Write("second");
      const std::string rest = offset == 0 && !throws ? "second" : "";
      EXPECT_EQ(stream_->taken, std::string("first").substr(0, offset) + rest) << throws;
    }
  }
}

// A Write counts as stuck as long as it takes nothing; its end, by an exception, too, ends that. A host may
// return without an error and without having taken anything.
TEST_F(PluginWriterTest, OnlyAWriteThatTakesNothingIsStuck) {
  CFlowControl::Account account;
  flow_.Open(account, 1);
  flow_.Queued(account, CFlowControl::Limits().connection_bytes);
  const std::uint64_t stalled_ms = flow_.Look(account).until_ms;
  Restart([]() -> Result { throw std::bad_alloc(); });
  EXPECT_THROW(Write("frame"), std::bad_alloc);
  EXPECT_EQ(flow_.Look(account).until_ms, stalled_ms) << "no Write is running";

  std::uint64_t first_ms = 0;
  Restart([&, calls = 0]() mutable {
    if (++calls > 3) return kTakes;
    const std::uint64_t until_ms = flow_.Look(account).until_ms;
    if (calls == 1) first_ms = until_ms;
    EXPECT_EQ(until_ms, first_ms) << calls;
    for (const auto tick = gettickcount(); gettickcount() == tick;) std::this_thread::yield();
    return calls < 3 ? kTakesNothing : kTakes;
  });
  Write("frame");
  EXPECT_EQ(stream_->taken, "frame");
  flow_.Close(account);
}

}  // namespace
