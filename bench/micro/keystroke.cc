// A keystroke and its echo beside one download, through the module alone: real sockets and threads, and a far
// side in memory that always has more data.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/scoped_descriptor.h"
#include "gxmod/frames.h"
#include "measure.h"
#include "object/creference.h"
#include "portfwd/port_forward_client.h"

namespace {

using gxmod::ConnectionType;

constexpr std::size_t kKeyBytes = 40;
constexpr std::size_t kDownloadFrameBytes = 65520;

std::string Frame(ConnectionType type, std::uint32_t id, std::string payload) {
  payload.insert(0, gxmod::kFrameHeaderBytes, '\0');
  const auto length = static_cast<std::uint32_t>(payload.size() - gxmod::kFrameHeaderBytes);
  gxmod::EncodeFrameHeader({length, id, type}, payload.data());
  return payload;
}

// Sends endless data on the first connection and echoes the data of all others. An echo is sent before the next
// frame of the download.
class EndlessFarSide final : public IPluginStreamRaw, private CReference {
 public:
  GX_FORWARD_REFERENCE();

  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned) override {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !echoes_.empty() || !download_.empty(); });
    if (closed_) return kGXModFail;
    if (at_ == frame_.size()) {
      frame_ = echoes_.empty() ? download_ : std::exchange(echoes_, {});
      at_ = 0;
    }
    *got = static_cast<unsigned>(frame_.copy(static_cast<char*>(data), length, at_));
    at_ += *got;
    return kGXModOk;
  }

  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned) override {
    const std::string frame(static_cast<const char*>(data), length);
    const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(frame.data());
    const std::lock_guard lock(mutex_);
    if (header.type == ConnectionType::Connect && download_.empty()) {
      download_ = Frame(ConnectionType::Data, header.connection_id, std::string(kDownloadFrameBytes, 'x'));
    }
    if (header.type == ConnectionType::Data) echoes_ += frame;
    changed_.notify_all();
    *written = length;
    return kGXModOk;
  }

  std::uint32_t Close() override {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    changed_.notify_all();
    return kGXModOk;
  }

 private:
  ~EndlessFarSide() override = default;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::string download_;  // the frame that is sent repeatedly
  std::string echoes_;
  std::string frame_;  // the frame that the module is reading
  std::size_t at_ = 0;
  bool closed_ = false;
};

gxbase::ScopedDescriptor ConnectTo(const std::string& address) {
  gxbase::ScopedDescriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(static_cast<std::uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
  if (connect(client.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0) return {};
  const int on = 1;
  setsockopt(client.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  const timeval patience{30, 0};
  setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  return client;
}

double Percentile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

void KeystrokeBesideDownload(benchmark::State& state) {
  const CRefObj<EndlessFarSide> far_side(new EndlessFarSide);
  const CRefObj<CPortForwardClientRaw> module(new CPortForwardClientRaw);
  module->InitInstance(far_side.get());
  module->Run();
  const std::string address = module->NewChannel("ssh", "", "127.0.0.1:22")->get_LocalAddress();
  const auto download = ConnectTo(address);
  std::size_t downloaded = 0;
  std::thread reader([&] {
    std::vector<char> bytes(256 * 1024);
    for (ssize_t count = 0; (count = recv(download.get(), bytes.data(), bytes.size(), 0)) > 0;) {
      downloaded += static_cast<std::size_t>(count);
    }
  });
  const auto typist = ConnectTo(address);
  std::array<char, kKeyBytes> key{};
  std::vector<double> echoes_us;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    send(typist.get(), key.data(), key.size(), MSG_NOSIGNAL);
    if (recv(typist.get(), key.data(), key.size(), MSG_WAITALL) != kKeyBytes) state.SkipWithError("no echo");
    echoes_us.push_back(
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count());
  }
  module->ExitInstance();
  reader.join();
  std::ranges::sort(echoes_us);
  state.counters["p50_us"] = Percentile(echoes_us, 0.5);
  state.counters["p99_us"] = Percentile(echoes_us, 0.99);
  state.counters["worst_us"] = echoes_us.back();
  state.SetBytesProcessed(static_cast<std::int64_t>(downloaded));
}
BENCHMARK(KeystrokeBesideDownload)->UseRealTime();

}  // namespace
