// Memory that runs out, and threads that cannot be had, at every single place of a connection's life.
#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <thread>

#include "support/echo_client.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/scale.h"

namespace {

// Counts down over the allocations of the module's own threads; the one that reaches 0 fails. With none armed
// the figure only falls. The same for the threads that the module starts.
constexpr long kNever = 1L << 40;
std::atomic<long> g_until_failure{kNever};
std::atomic<long> g_threads_until_failure{kNever};
thread_local bool t_counts = false;

bool Fails() { return t_counts && g_until_failure.fetch_sub(1) == 1; }

// What the host does on a thread of the module's is not the module's.
class HostCode {
 public:
  HostCode() { t_counts = false; }
  HostCode(const HostCode&) = delete;
  HostCode& operator=(const HostCode&) = delete;
  ~HostCode() { t_counts = counted_; }

 private:
  const bool counted_ = t_counts;
};

struct Start {
  void* (*function)(void*);
  void* argument;
};

void* RunCounted(void* memory) {
  const Start start = *static_cast<Start*>(memory);
  delete static_cast<Start*>(memory);
  t_counts = true;
  return start.function(start.argument);
}

}  // namespace

// The linker sends every malloc and pthread_create of the module and the test here; a std::thread starts inside
// the C++ runtime and is not meant.
extern "C" {
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) { return Fails() ? nullptr : __real_malloc(size); }

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
  if (g_threads_until_failure.fetch_sub(1) == 1) return EAGAIN;
  return __real_pthread_create(thread, attributes, RunCounted, new Start{function, argument});
}
}

// All forms, since a sanitizer brings its own. Out of line: the compiler must not see where the memory comes
// from.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Fails() ? nullptr : __real_malloc(size != 0 ? size : 1);
}
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* block = operator new(size, std::nothrow);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void* operator new[](std::size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }

namespace {

using gxtest::FarSide;
using gxtest::Pattern;
using gxtest::TcpClient;

// The host's part of a call from the module: its allocations are none of the module's.
class HostStream final : public IPluginStreamRaw, private CReference {
 public:
  explicit HostStream(CRefObj<gxtest::PluginStream> stream) : stream_(std::move(stream)) {}
  GX_FORWARD_REFERENCE();
  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) override {
    const HostCode host;
    return stream_->Read(data, length, got, flags);
  }
  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) override {
    const HostCode host;
    return stream_->Write(data, length, written, flags);
  }
  std::uint32_t Close() override { return stream_->Close(); }

 private:
  const CRefObj<gxtest::PluginStream> stream_;
};

class HostLog final : public LogCapture {
 public:
  void Log(int, const char*) override {}
};

class MemoryFaults : public gxtest::LeakGate {
 protected:
  void TearDown() override {
    Exit();
    LeakGate::TearDown();
  }

  // False: no port was opened.
  bool Start() {
    stream_ = CRefObj<gxtest::PluginStream>(new gxtest::PluginStream);
    client_ = CRefObj<CPortForwardClientRaw>(new CPortForwardClientRaw);
    client_->InitInstance(CRefObj<IPluginStreamRaw>(new HostStream(stream_)).get());
    if (client_->Run() != kGXModOk) return false;
    IChannelRaw* channel = client_->NewChannel("ssh", "", "h:1");
    address_ = channel->get_LocalAddress();
    return !address_.empty();
  }

  void Exit() {
    if (client_) client_->ExitInstance();
    client_ = nullptr;
    stream_ = nullptr;
  }

  // The whole life of a connection; whatever goes wrong in it ends it, so nothing here waits long.
  bool LiveOnce() const {
    const std::string bytes = Pattern(200'000);
    TcpClient client(address_);
    std::thread sender([&] { client.Send(bytes); });
    const bool echoed = client.Receive(bytes.size()) == bytes;
    client.FinishSending();
    EXPECT_TRUE(client.WaitForEnd());
    sender.join();
    return echoed;
  }

  HostLog log_;
  CRefObj<gxtest::PluginStream> stream_;
  CRefObj<CPortForwardClientRaw> client_;
  std::string address_;
};

// The module has come to rest: the failure shall not meet what went before.
void WaitForQuiet() {
  EXPECT_TRUE(gxtest::Eventually([] {
    const long before = g_until_failure;
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    return g_until_failure == before;
  }));
}

// The n-th allocation of one connection's life fails, for every n: that connection ends at worst, or the reader
// does. Nobody else is told anything wrong, nobody hangs, and nothing is left.
TEST_F(MemoryFaults, EveryAllocationOfAConnectionMayFail) {
  const long thorough_to = gxtest::Scale(30L, kNever);  // most places are met before the data flows
  long failures = 0;
  long lives_lost = 0;
  bool reached = true;
  for (long n = 1; reached && !HasFailure(); n += n < thorough_to ? 1 : 10) {
    SCOPED_TRACE("allocation " + std::to_string(n));
    ASSERT_TRUE(Start());
    {
      const FarSide far(stream_);
      gxtest::EchoClient innocent(address_);
      ASSERT_TRUE(innocent.Echoes());
      WaitForQuiet();
      g_until_failure = n;
      const bool lived = LiveOnce();
      reached = g_until_failure.exchange(kNever) <= 0;
      EXPECT_TRUE(lived || reached);
      failures += reached ? 1 : 0;
      lives_lost += lived ? 0 : 1;
      EXPECT_TRUE(innocent.Echoes());
      EXPECT_TRUE(LiveOnce());
      EXPECT_EQ(far.Total().fault, "");
    }
    Exit();
  }
  std::cout << failures << " allocations failed, " << lives_lost << " connections were lost\n";
}

// Without one of its threads a client must not open a port that nobody answers on.
TEST_F(MemoryFaults, WithoutAThreadNoPortIsOpened) {
  for (int reactor_attempts = 0; reactor_attempts <= 1; ++reactor_attempts) {
    g_threads_until_failure = 2 - reactor_attempts;
    // The reactor is tried again when the channel needs it; the reader is not.
    EXPECT_EQ(Start(), reactor_attempts == 1);
    EXPECT_LE(g_threads_until_failure, 0);
    Exit();
  }
}

}  // namespace
