// A plugin stream whose other end is in the hands of the test.
#ifndef GX_TESTS_SUPPORT_PLUGIN_STREAM_H
#define GX_TESTS_SUPPORT_PLUGIN_STREAM_H

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <limits>
#include <mutex>
#include <optional>
#include <string>

#include "gxmod/control_ssh.h"
#include "gxmod/frames.h"
#include "object/reference.h"
#include "support/wait.h"

namespace gxtest {

struct Frame {
  gxmod::ConnectionType type{};
  std::uint32_t id = 0;
  std::string payload;

  friend bool operator==(const Frame&, const Frame&) = default;
};

inline std::string Encode(const Frame& frame) {
  std::string bytes(gxmod::kFrameHeaderBytes, '\0');
  gxmod::EncodeFrameHeader({static_cast<std::uint32_t>(frame.payload.size()), frame.id, frame.type},
                           bytes.data());
  return bytes + frame.payload;
}

// The module's side is IPluginStreamRaw; everything else is the test's. Bytes wait in memory both ways.
class PluginStream final : public IPluginStreamRaw, private CReference {
 public:
  GX_FORWARD_REFERENCE();

  // What the stream does to the module; set before the traffic that it shall concern.
  struct Behaviour {
    std::size_t read_at_most = std::numeric_limits<unsigned>::max();      // bytes per Read
    std::size_t write_at_most = std::numeric_limits<unsigned>::max();     // bytes per Write
    std::size_t fail_read_at = std::numeric_limits<std::size_t>::max();   // offset in the stream
    std::size_t fail_write_at = std::numeric_limits<std::size_t>::max();  // likewise
    std::size_t capacity =
        std::numeric_limits<std::size_t>::max();  // bytes that wait for the far side; then Write blocks
  };
  void Behave(const Behaviour& behaviour) {
    const std::lock_guard lock(mutex_);
    behaviour_ = behaviour;
    changed_.notify_all();
  }

  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned) override {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return closed_ || ended_ || !to_module_.empty() || ReadFails(); });
    if (closed_ || ReadFails() || to_module_.empty()) return 1;
    std::size_t count = std::min({std::size_t{length}, to_module_.size(), behaviour_.read_at_most});
    count = std::min(count, behaviour_.fail_read_at - read_);
    to_module_.copy(static_cast<char*>(data), count);
    to_module_.erase(0, count);
    changed_.notify_all();
    read_ += count;
    *got = static_cast<unsigned>(count);
    return 0;
  }

  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned) override {
    if (writers_.fetch_add(1) != 0) overlapped_ = true;
    std::unique_lock lock(mutex_);
    blocked_ = from_module_.size() >= behaviour_.capacity;
    changed_.notify_all();
    changed_.wait(lock, [&] { return closed_ || from_module_.size() < behaviour_.capacity; });
    blocked_ = false;
    --writers_;
    const std::size_t room = behaviour_.fail_write_at - std::min(behaviour_.fail_write_at, written_);
    if (closed_ || room == 0) return 1;
    const std::size_t count = std::min({std::size_t{length}, behaviour_.write_at_most, room});
    from_module_.append(static_cast<const char*>(data), count);
    written_ += count;
    *written = static_cast<unsigned>(count);
    changed_.notify_all();
    return 0;
  }

  std::uint32_t Close() override {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
    return 0;
  }

  void Send(const std::string& bytes) {
    const std::lock_guard lock(mutex_);
    to_module_ += bytes;
    changed_.notify_all();
  }
  void Send(const Frame& frame) { Send(Encode(frame)); }
  // The far side ends the stream once everything sent has been read.
  void End() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  // The next frame from the module; nothing when none comes in time or the stream is closed.
  std::optional<Frame> Receive(std::chrono::milliseconds patience = kPatience) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] { return closed_ || HasFrame(); });
    if (!HasFrame()) return std::nullopt;
    const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(from_module_.data());
    Frame frame{header.type, header.connection_id,
                from_module_.substr(gxmod::kFrameHeaderBytes, header.length)};
    from_module_.erase(0, gxmod::kFrameHeaderBytes + header.length);
    changed_.notify_all();
    return frame;
  }
  // The next frame of one type; others are dropped.
  std::optional<Frame> Receive(gxmod::ConnectionType type) {
    std::optional<Frame> frame;
    do frame = Receive();
    while (frame && frame->type != type);
    return frame;
  }

  // The module has read everything sent so far.
  bool WaitUntilRead() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return to_module_.empty(); });
  }
  bool WaitUntilWriteBlocks() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return blocked_; });
  }
  std::string Written() {
    const std::lock_guard lock(mutex_);
    return from_module_;
  }
  bool IsClosed() {
    const std::lock_guard lock(mutex_);
    return closed_;
  }
  // Two threads have been inside Write at the same time.
  bool Overlapped() const { return overlapped_; }

 private:
  bool ReadFails() const { return read_ >= behaviour_.fail_read_at; }
  bool HasFrame() const {
    return from_module_.size() >= gxmod::kFrameHeaderBytes &&
           from_module_.size() - gxmod::kFrameHeaderBytes >=
               gxmod::DecodeFrameHeader(from_module_.data()).length;
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Behaviour behaviour_;
  std::string to_module_;
  std::string from_module_;
  std::size_t read_ = 0;
  std::size_t written_ = 0;
  bool closed_ = false;
  bool ended_ = false;
  bool blocked_ = false;
  std::atomic<int> writers_{0};
  std::atomic<bool> overlapped_{false};
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_PLUGIN_STREAM_H
