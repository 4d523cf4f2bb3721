// A far side on its own thread that checks and answers what the module sends.
#ifndef GX_TESTS_SUPPORT_FAR_SIDE_H
#define GX_TESTS_SUPPORT_FAR_SIDE_H

#include "support/pattern.h"
#include "support/plugin_stream.h"

namespace gxtest {

// Expects of every connection one Connect, Data with one pattern, and one Close; everything else is a fault.
// Threads: the answer runs on the far side's own, all else on any.
class FarSide {
 public:
  using Answer = std::function<void(PluginStream& stream, const Frame& frame)>;

  // Sends back what comes.
  static void Echo(PluginStream& stream, const Frame& frame) {
    if (frame.type == gxmod::ConnectionType::Data) stream.Send(frame);
  }
  // Also ends a connection after `bytes` of it have come.
  static Answer EchoAndEnd(std::uint64_t bytes) {
    return [bytes, come = std::map<std::uint32_t, std::uint64_t>()](PluginStream& stream,
                                                                    const Frame& frame) mutable {
      Echo(stream, frame);
      if (frame.type != gxmod::ConnectionType::Data) return;
      come[frame.id] += frame.payload.size();
      if (come[frame.id] >= bytes) stream.Send({gxmod::ConnectionType::Close, frame.id, ""});
    };
  }

  explicit FarSide(CRefObj<PluginStream> stream, Answer answer = Echo)
      : stream_(std::move(stream)), answer_(std::move(answer)), thread_([this] { Run(); }) {}
  FarSide(const FarSide&) = delete;
  FarSide& operator=(const FarSide&) = delete;
  ~FarSide() { Stop(); }

  // Takes no more frames.
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

  struct Totals {
    std::size_t closes = 0;
    std::uint64_t bytes = 0;  // of data
    std::string fault;        // the first one; empty: none
  };
  Totals Total() const {
    const std::lock_guard lock(mutex_);
    return totals_;
  }
  // Waits until so many connections have ended.
  bool WaitForCloses(std::size_t count) const {
    return Eventually([&] { return Total().closes >= count; });
  }

 private:
  struct Connection {
    // Returns false when the data is not what comes next.
    bool Add(const std::string& data) {
      if (bytes == 0) seed = SeedOf(data);
      return data == Pattern(data.size(), seed, std::exchange(bytes, bytes + data.size()));
    }
    std::uint64_t bytes = 0;
    std::uint32_t seed = 0;
    bool closed = false;
  };

  void Run() {
    while (!stop_ && !stream_->IsClosed()) {
      const auto frame = stream_->Receive(std::chrono::milliseconds(50));
      if (!frame) continue;
      {
        const std::lock_guard lock(mutex_);
        const std::string fault = Account(*frame);
        if (totals_.fault.empty()) totals_.fault = fault;
      }
      answer_(*stream_, *frame);
    }
  }

  // What is wrong with the frame; empty: nothing.
  std::string Account(const Frame& frame) {
    const std::string name = std::to_string(frame.id);
    const auto known = connections_.find(frame.id);
    switch (frame.type) {
      case gxmod::ConnectionType::ChannelList:
        return {};
      case gxmod::ConnectionType::Connect:
        return connections_.try_emplace(frame.id).second ? "" : "a second Connect of " + name;
      case gxmod::ConnectionType::Close:
        ++totals_.closes;
        if (known == connections_.end()) return "Close of nobody " + name;
        return std::exchange(known->second.closed, true) ? "a second Close of " + name : "";
      case gxmod::ConnectionType::Data:
        totals_.bytes += frame.payload.size();
        if (known == connections_.end() || known->second.closed) return "data outside the life of " + name;
        return known->second.Add(frame.payload) ? "" : "other data than was sent to " + name;
      default:
        return "a frame of type " + std::to_string(static_cast<int>(frame.type));
    }
  }

  const CRefObj<PluginStream> stream_;
  const Answer answer_;
  mutable std::mutex mutex_;
  std::map<std::uint32_t, Connection> connections_;
  Totals totals_;
  std::atomic<bool> stop_{false};
  std::thread thread_;  // the last member: it uses the others
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_FAR_SIDE_H
