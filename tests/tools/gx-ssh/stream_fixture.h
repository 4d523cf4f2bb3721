// A plugin stream whose far side is the test.
#ifndef TESTS_TOOLS_GX_SSH_STREAM_FIXTURE_H
#define TESTS_TOOLS_GX_SSH_STREAM_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "gx-ssh/descriptor.h"
#include "gx-ssh/plugin_stream.h"
#include "link/control_frames.h"
#include "tools/io.h"

namespace gxtool {

// Writes down what the stream tells.
class Diary : public StreamObserver {
 public:
  void OnFrameSent(const gxmod::FrameHeader& header) override { Add("sent " + Name(header)); }
  void OnFrameReceived(const gxmod::FrameHeader& header) override { Add("received " + Name(header)); }
  void OnInputDelivered(std::uint32_t id) override { Add("delivered " + std::to_string(id)); }
  void OnChannelListDropped() override { Add("list dropped"); }
  void OnGoodbye(const std::string& reason) override { Add("goodbye " + reason); }
  void OnInputEnd(const std::string& reason) override { Add("end: " + reason); }
  void OnOutputFailed(const std::string& reason) override { Add("failed: " + reason); }

  std::string Take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(text_, {});
  }

 private:
  static std::string Name(const gxmod::FrameHeader& header) {
    return std::to_string(static_cast<int>(header.type)) + "/" + std::to_string(header.connection_id);
  }
  void Add(const std::string& entry) {
    const std::lock_guard lock(mutex_);
    text_ += entry + "; ";
  }

  std::mutex mutex_;
  std::string text_;
};

class StreamFixture : public testing::Test {
 protected:
  StreamFixture() { signal(SIGPIPE, SIG_IGN); }

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

  Diary diary_;
  Descriptor far_;
  CRefObj<PluginStream> stream_;
};

inline std::string DataFrame(std::uint32_t id, std::string_view payload) {
  return MakeFrame(gxmod::ConnectionType::Data, id, payload);
}

}  // namespace gxtool

#endif  // TESTS_TOOLS_GX_SSH_STREAM_FIXTURE_H
