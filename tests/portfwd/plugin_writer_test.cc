#include "portfwd/plugin_writer.h"

#include <unistd.h>

#include "base/clock.h"
#include "object/creference.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/wait.h"

namespace {

// Takes a byte a call, and does what the test says before it takes the one at `offset`.
class ByteStream final : public IPluginStreamRaw, private CReference {
 public:
  GX_FORWARD_REFERENCE();

  std::uint32_t Read(void*, unsigned, unsigned*, unsigned) override { return 1; }
  std::uint32_t Write(const void* data, unsigned, unsigned* written, unsigned) override {
    if (nothing_taken && nothing_taken(++calls)) return 0;
    if (taken.size() == offset && event) {
      if (!std::exchange(event, nullptr)()) return 1;
    }
    taken.append(static_cast<const char*>(data), 1);
    *written = 1;
    return 0;
  }
  std::uint32_t Close() override { return 0; }

  std::string taken;
  std::size_t offset = 0;
  std::function<bool()> event;  // once; false: the call fails
  unsigned calls = 0;
  std::function<bool(unsigned)> nothing_taken;  // asked at each call
};

class PluginWriterTest : public testing::Test {
 protected:
  bool Write(const std::string& frame) { return writer_->WriteFrame(frame.data(), frame.size()); }

  void Restart(std::size_t offset, std::function<bool()> event) {
    stream_ = CRefObj<ByteStream>(new ByteStream);
    stream_->offset = offset;
    stream_->event = std::move(event);
    writer_ = std::make_unique<CPluginWriter>(stream_.get(), flow_);
  }

  CFlowControl flow_{{}};
  CRefObj<ByteStream> stream_;
  std::unique_ptr<CPluginWriter> writer_;
};

TEST_F(PluginWriterTest, AFrameIsNeverCutByAnother) {
  std::thread other;
  Restart(1, [&] {
    std::promise<pid_t> id;
    other = std::thread([&] {
      id.set_value(gettid());
      Write("second");
    });
    const std::string state = "/proc/self/task/" + std::to_string(id.get_future().get()) + "/stat";
    return gxtest::Eventually(
        [&] { return FileText(state).find(") R ") == std::string::npos; });  // or has ended
  });
  EXPECT_FALSE(Write("first")) << "the host took it in parts";
  other.join();
  EXPECT_EQ(stream_->taken, "firstsecond");
}

// The far side could not tell where a frame begins behind one that was cut off.
TEST_F(PluginWriterTest, NothingFollowsAFrameThatWasCutOff) {
  for (const bool throws : {false, true}) {
    for (std::size_t offset = 0; offset < 5; ++offset) {
      Restart(offset, [throws]() -> bool {
        if (throws) throw std::bad_alloc();
        return false;
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

// The reader must not believe for ever that the far side is stuck. A host may also return without an error and
// without having taken anything.
TEST_F(PluginWriterTest, OnlyAWriteThatTakesNothingIsStuck) {
  CFlowControl::Account account;
  flow_.Open(account, 1);
  flow_.Queued(account, CFlowControl::Limits().connection_bytes);
  Restart(0, []() -> bool { throw std::bad_alloc(); });
  const std::uint64_t stalled_ms = flow_.Look(account).until_ms;
  EXPECT_THROW(Write("frame"), std::bad_alloc);
  EXPECT_EQ(flow_.Look(account).until_ms, stalled_ms) << "it is over";

  std::uint64_t first_ms = 0;
  stream_->nothing_taken = [&](unsigned calls) {
    if (calls > 3) return false;
    const std::uint64_t until_ms = flow_.Look(account).until_ms;
    if (calls == 1) first_ms = until_ms;
    EXPECT_EQ(until_ms, first_ms) << calls;
    for (const auto tick = gettickcount(); gettickcount() == tick;) std::this_thread::yield();
    return calls < 3;
  };
  writer_ = std::make_unique<CPluginWriter>(stream_.get(), flow_);
  Write("frame");
  EXPECT_EQ(stream_->taken, "frame");
  flow_.Close(account);
}

}  // namespace
