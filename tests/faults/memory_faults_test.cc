// Each request of the module for memory or a thread fails once, from `init` to `uninit`.
#include <pthread.h>

#include "module/create.h"
#include "module/ssh_client.h"
#include "support/far_side.h"
#include "support/host_objects.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/tcp_client.h"
#include "support/test.h"

namespace {

constexpr long kNever = 1L << 40;

// What the module asks for, on any thread. Armed with n and `more`, the n-th request fails and the next `more`.
class Resource {
 public:
  void Arm(long n, long more) {
    more_ = more;
    until_failure_ = n;
  }
  bool Fails() {
    const long left = until_failure_.fetch_sub(1);
    return left <= 1 && left >= 1 - more_;
  }
  // How many have failed.
  long Failed() const { return std::clamp(1 - until_failure_, 0L, 1 + more_); }

 private:
  std::atomic<long> until_failure_{kNever};
  std::atomic<long> more_{0};
};

Resource g_memory;
Resource g_threads;
std::atomic<long> g_blocks{0};  // of memory that are in use
thread_local bool t_in_module = false;
constexpr bool kHost = false;
constexpr bool kModule = true;

// Calls code of the host or of the module. Only the module's requests fail.
template <class Call>
auto Inside(bool module, Call call) {
  const bool before = std::exchange(t_in_module, module);
  const auto result = call();
  t_in_module = before;
  return result;
}

using Start = std::pair<void* (*)(void*), void*>;  // a thread's function and its argument

void* RunInModule(void* memory) {
  const std::unique_ptr<Start> start(static_cast<Start*>(memory));
  t_in_module = kModule;
  return start->first(start->second);
}

}  // namespace

// The linker sends the calls of the module and the test here. The C++ runtime starts a std::thread itself, so
// those of the test stay outside the module.
extern "C" {
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
  void* const block = t_in_module && g_memory.Fails() ? nullptr : __real_malloc(size);
  if (block != nullptr) ++g_blocks;
  return block;
}

void __real_free(void*);
void __wrap_free(void* block) {
  if (block != nullptr) --g_blocks;
  __real_free(block);
}

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
  if (g_threads.Fails()) return EAGAIN;
  const auto create = [&] {
    return __real_pthread_create(thread, attributes, RunInModule, new Start(function, argument));
  };
  const int result = Inside(kHost, create);
  // The new thread gets ahead of its starter, as it does on a busy computer.
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return result;
}
}

// All forms, since a sanitizer brings its own. Out of line: the compiler complains of a delete whose memory it
// sees coming from malloc.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return __wrap_malloc(size != 0 ? size : 1);
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
using gxtest::PluginStream;
using gxtest::TcpClient;

class HostStream final : public PluginStream {
 public:
  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) override {
    return Inside(kHost, [&] { return PluginStream::Read(data, length, got, flags); });
  }
  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) override {
    return Inside(kHost, [&] { return PluginStream::Write(data, length, written, flags); });
  }
};

class HostLog final : public LogKeeper {
 public:
  void Log(int level, const char*) override { errors_ += level == kGXModLogError ? 1 : 0; }
  std::atomic<int> errors_{0};
};

class MemoryFaults : public gxtest::LeakGate {
 protected:
  // From `init` to `uninit`, with connections between where it comes to that. Though the n-th request for
  // `resource` fails, results tell the truth, and each failure costs one connection at most. False: there were
  // fewer requests.
  bool Live(const char* what, Resource& resource, long n, long more) {
    SCOPED_TRACE(what + std::to_string(n));
    HostLog log;
    const CRefObj<gxtest::CreateParams> params(new gxtest::CreateParams);
    const CRefObj<PluginStream> stream(new HostStream);
    resource.Arm(n, more);
    EXPECT_TRUE(Inside(kModule, [&] { return ssh_control_init(static_cast<IGXModRuntime*>(&log)); }));
    void* made = nullptr;
    const auto create = [&] {
      return ssh_control_create(static_cast<IGXModCreateParams*>(params.get()), &made);
    };
    const bool created = Inside(kModule, create) == 1;
    EXPECT_EQ(created, made != nullptr);
    auto plugin = CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(made));
    std::uint32_t result = kGXModFail;
    if (plugin) {
      const std::uint32_t initialised = Inside(kModule, [&] { return plugin->InitInstance(stream.get()); });
      result = Inside(kModule, [&] { return plugin->Run(); });
      EXPECT_TRUE(initialised == kGXModOk || result != kGXModOk);
    }
    if (result == kGXModOk) {
      Use(plugin->GetLocalPort(), stream, resource);
    } else {
      EXPECT_GT(resource.Failed(), 0);
      EXPECT_FALSE(gxtest::AnyPortListens());
      EXPECT_GT(log.errors_ + more, 0) << "the reason is in the log, if there was memory for that";
    }
    if (plugin) Inside(kModule, [&] { return plugin->ExitInstance(); });
    EXPECT_FALSE(gxtest::AnyPortListens());
    const bool reached = resource.Failed() > 0;
    resource.Arm(kNever, 0);
    plugin = nullptr;
    ssh_control_uninit();
    return reached;
  }

 private:
  // Two connections; the far side ends one within the life of the other. Whatever goes wrong ends one of them,
  // so nothing here waits long.
  void Use(int port, const CRefObj<PluginStream>& stream, const Resource& resource) {
    const long failed_before = resource.Failed();
    constexpr std::size_t kEnough = 20'000;
    const FarSide far(stream, FarSide::EchoAndEnd(kEnough));
    TcpClient client(port);
    bool client_lives = client.Echoes();
    TcpClient other(port);
    const bool other_lived = other.IsConnected() && other.Echoes(kEnough);
    EXPECT_TRUE(!other.IsConnected() || other.WaitForEnd());
    client_lives = client_lives && client.Echoes();
    // Where memory ran out for its Close, the reader tries again before each of the next frames.
    EXPECT_TRUE(!other_lived || !client_lives || !client.Echoes() || far.WaitForCloses(1));
    EXPECT_LE((client_lives ? 0 : 1) + (other_lived ? 0 : 1), resource.Failed() - failed_before);
    EXPECT_EQ(far.Total().fault, "");
  }
};

TEST_F(MemoryFaults, AnyRequestMayFail) {
  const auto each_fails = [this](const char* what, Resource& resource, long more) {
    long n = 1;
    const long blocks = g_blocks;
    while (n < 400 && Live(what, resource, n, more)) {
      ASSERT_FALSE(HasFailure()) << "its message takes memory, too";
      ASSERT_EQ(g_blocks, blocks) << what << n << " leaked";
      ++n;
    }
    EXPECT_GT(n, 2);
  };
  Live("nothing ", g_memory, kNever, 0);  // allocates what the process keeps
  each_fails("allocation ", g_memory, 0);
  each_fails("allocation and the next ", g_memory, 1);
  each_fails("thread ", g_threads, 0);
}

}  // namespace
