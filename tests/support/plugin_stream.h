// A plugin stream whose other end is the test.
#ifndef GX_TESTS_SUPPORT_PLUGIN_STREAM_H
#define GX_TESTS_SUPPORT_PLUGIN_STREAM_H

#include "gxmod/control_ssh.h"
#include "gxmod/frames.h"
#include "object/creference.h"
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

// The module uses IPluginStreamRaw, the test the rest. Bytes wait in memory in both directions.
class PluginStream : public IPluginStreamRaw, private CReference {
 public:
  GX_FORWARD_REFERENCE();

  static constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

  // How the stream treats the module from the next call on.
  struct Behaviour {
    std::size_t read_at_most = kNoLimit;   // bytes per Read; 0: Read stalls
    std::size_t write_at_most = kNoLimit;  // bytes per Write
    std::size_t capacity = kNoLimit;       // bytes that wait for the far side; then Write blocks
    std::size_t send_capacity = kNoLimit;  // bytes that wait for the module; then Send blocks
    unsigned cut_seed = 0;  // not 0: Read and Write move a random part of what they could, sometimes nothing
    bool close_throws = false;
  };
  void Behave(const Behaviour& behaviour) {
    const std::lock_guard lock(mutex_);
    behaviour_ = behaviour;
    random_.seed(behaviour.cut_seed);
    changed_.notify_all();
  }

  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned) override {
    std::unique_lock lock(mutex_);
    changed_.wait(lock,
                  [&] { return closed_ || (behaviour_.read_at_most != 0 && (ended_ || !to_module_.empty())); });
    if (closed_ || to_module_.empty()) {
      ++reads_at_the_end;
      return 1;
    }
    const std::size_t count = Cut({length, to_module_.size(), behaviour_.read_at_most});
    std::copy_n(to_module_.begin(), count, static_cast<char*>(data));
    to_module_.erase(to_module_.begin(), to_module_.begin() + static_cast<std::ptrdiff_t>(count));
    changed_.notify_all();
    *got = static_cast<unsigned>(count);
    return 0;
  }

  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned) override {
    std::unique_lock lock(mutex_);
    blocked_ = Room() == 0;
    changed_.notify_all();
    changed_.wait(lock, [&] { return closed_ || Room() != 0; });
    blocked_ = false;
    if (closed_) return 1;
    const std::size_t count = Cut({length, behaviour_.write_at_most, Room()});
    from_module_.insert(from_module_.end(), static_cast<const char*>(data),
                        static_cast<const char*>(data) + count);
    *written = static_cast<unsigned>(count);
    changed_.notify_all();
    return 0;
  }

  std::uint32_t Close() override {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
    if (behaviour_.close_throws) throw std::bad_alloc();
    return 0;
  }

  // Waits for room when send_capacity bounds it. After Close the bytes are dropped.
  void Send(const std::string& bytes) {
    const std::lock_guard one_at_a_time(send_mutex_);
    std::unique_lock lock(mutex_);
    for (std::size_t done = 0; done < bytes.size();) {
      changed_.wait(lock, [&] { return closed_ || to_module_.size() < behaviour_.send_capacity; });
      if (closed_) return;
      const std::size_t count = std::min(bytes.size() - done, behaviour_.send_capacity - to_module_.size());
      to_module_.insert(to_module_.end(), bytes.data() + done, bytes.data() + done + count);
      done += count;
      changed_.notify_all();
    }
  }
  void Send(const Frame& frame) { Send(Encode(frame)); }
  // The far side ends the stream once everything sent has been read.
  void End() {
    const std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  // The next frame from the module; nothing when none comes in time or the stream is closed. Waiting makes room
  // for the module, so a frame may be larger than the capacity.
  std::optional<Frame> Receive(std::chrono::milliseconds patience = kPatience) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, patience, [&] {
      if (Waiting() != 0) changed_.notify_all();
      taken_ = from_module_.size();
      return closed_ || NextHeader();
    });
    const auto header = NextHeader();
    if (!header) return std::nullopt;
    const auto payload = from_module_.begin() + gxmod::kFrameHeaderBytes;
    Frame frame{header->type, header->connection_id, std::string(payload, payload + header->length)};
    from_module_.erase(from_module_.begin(), payload + header->length);
    taken_ = from_module_.size();
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
    return WaitUntil([&] { return to_module_.empty(); });
  }
  bool WaitUntilWriteBlocks() {
    return WaitUntil([&] { return blocked_; });
  }
  bool IsClosed() {
    const std::lock_guard lock(mutex_);
    return closed_;
  }

  std::atomic<int> reads_at_the_end{0};  // that the module was told about

 private:
  template <class Condition>
  bool WaitUntil(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, condition);
  }
  // Bytes from the module that occupy the capacity.
  std::size_t Waiting() const { return from_module_.size() - taken_; }
  std::size_t Room() const { return behaviour_.capacity - std::min(behaviour_.capacity, Waiting()); }
  // How many bytes a call moves within these limits.
  std::size_t Cut(std::initializer_list<std::size_t> limits) {
    const std::size_t most = std::min(limits);
    return behaviour_.cut_seed == 0 ? most : random_() % (most + 1);
  }
  // Nothing before the next frame is complete.
  std::optional<gxmod::FrameHeader> NextHeader() const {
    char bytes[gxmod::kFrameHeaderBytes];
    if (from_module_.size() < sizeof bytes) return std::nullopt;
    std::copy_n(from_module_.begin(), sizeof bytes, bytes);
    const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(bytes);
    if (from_module_.size() - sizeof bytes < header.length) return std::nullopt;
    return header;
  }

  std::mutex send_mutex_;  // whole frames, before mutex_
  std::mutex mutex_;
  std::condition_variable changed_;
  Behaviour behaviour_;
  std::minstd_rand random_;
  std::deque<char> to_module_;
  std::deque<char> from_module_;
  std::size_t taken_ = 0;
  bool closed_ = false;
  bool ended_ = false;
  bool blocked_ = false;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_PLUGIN_STREAM_H
