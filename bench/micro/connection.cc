// One local connection in the module, from its socket to the host's Write and back, without the reactor's
// thread.
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "base/scoped_descriptor.h"
#include "measure.h"
#include "object/creference.h"
#include "portfwd/connection_handler.h"
#include "portfwd/frame_alloctor.h"
#include "portfwd/stream_decorator.h"
#include "sock/sock_stream.h"
#include "stream/mem_buffer.h"

namespace {

constexpr std::size_t kBlockBytes = 4096;
constexpr std::size_t kTurnBytes = 64 * 1024;

// Takes and drops all bytes.
class NullPluginStream final : public IPluginStreamRaw, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  std::uint32_t Read(void*, unsigned, unsigned*, unsigned) override { return kGXModFail; }
  std::uint32_t Write(const void*, unsigned length, unsigned* written, unsigned) override {
    *written = length;
    return kGXModOk;
  }
  std::uint32_t Close() override { return kGXModOk; }

 private:
  ~NullPluginStream() override = default;
};

// Keeps the one task that waits.
class LoneTracker final : public ITCPTaskTracker {
 public:
  bool AddTask(const CTCPTask& task) override {
    task_ = task;
    return true;
  }
  void Run() { std::exchange(task_, CTCPTask())->Done(); }
  void Drop() { task_ = CTCPTask(); }

 private:
  CTCPTask task_;
};

class Connection final : IConnectionOwner {
 public:
  Connection(CRefObj<CPluginLink> link, const CRefObj<IMemAlloctor>& memory) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) return;
    client_ = gxbase::ScopedDescriptor(ends[1]);
    stream_ = new CSockStream(IBaseStream::StreamType{0});
    stream_->SetSocket(ends[0], true);
    stream_->SetTracker(&tracker_);
    stream_->SetMemAlloc(memory.get());
    handler_ = StreamDecorator_T<MyHandler>(stream_.get()).handler();
    handler_->put_Target("127.0.0.1:22");
    handler_->Join(*this, 7, std::move(link));
    stream_->Handler()->Handle(stream_.get(), IBaseStream::kConnected, nullptr, 0);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() {
    if (stream_) stream_->Disconnect(0);
  }

  bool good() const { return static_cast<bool>(stream_); }
  int client() const { return client_.get(); }
  LoneTracker& tracker() { return tracker_; }
  MyHandler& handler() { return *handler_; }

 private:
  void OnEnd(MyHandler& connection, bool owes_close) override {
    if (owes_close) connection.SendClose();
    tracker_.Drop();
  }

  gxbase::ScopedDescriptor client_;
  LoneTracker tracker_;
  CRefObj<CSockStream> stream_;
  CRefObj<MyHandler> handler_;
};

CRefObj<CPluginLink> MakeLink() {
  return {new CPluginLink(CRefObj<IPluginStreamRaw>(new NullPluginStream).get(), {})};
}

// The client has sent data, and the reactor has found the socket readable.
void ReadAndWriteFrames(benchmark::State& state) {
  static std::array<char, kTurnBytes> bytes{};
  const auto length = static_cast<std::size_t>(state.range(0));
  Connection connection(MakeLink(), new CFrameAlloctor);
  if (!connection.good()) return state.SkipWithError("no sockets");
  gxbench::MeasureAt(state, "up", [&] {
    benchmark::DoNotOptimize(send(connection.client(), bytes.data(), length, 0));
    connection.tracker().Run();
  });
}
BENCHMARK(ReadAndWriteFrames)->Arg(64)->Arg(kBlockBytes)->Arg(kTurnBytes);

// A frame from the far side is delivered to the client, which takes it at once.
void DeliverFrame(benchmark::State& state) {
  static std::array<char, kBlockBytes> bytes{};
  const auto length = static_cast<std::uint32_t>(state.range(0));
  Connection connection(MakeLink(), new CFrameAlloctor);
  if (!connection.good()) return state.SkipWithError("no sockets");
  gxbench::MeasureAt(state, "down", [&] {
    const CRefObj<IBuffer> payload = g_pMemAlloctor->GetFreeBuffer(length);
    payload->SetSize(length);
    connection.handler().Deliver(payload.get(), length);
    benchmark::DoNotOptimize(recv(connection.client(), bytes.data(), length, 0));
  });
}
BENCHMARK(DeliverFrame)->Arg(64)->Arg(kBlockBytes);

// A connection is accepted, announced and closed.
void ShortConnection(benchmark::State& state) {
  const CRefObj<CPluginLink> link = MakeLink();
  const CRefObj<IMemAlloctor> memory(new CFrameAlloctor);
  gxbench::Measure(state, "connection", [&] { benchmark::DoNotOptimize(Connection(link, memory).good()); });
}
BENCHMARK(ShortConnection);

}  // namespace
