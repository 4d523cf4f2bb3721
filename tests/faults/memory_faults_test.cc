// Memory that runs out, and threads that cannot be had, at every single place of the module's life.
#include <pthread.h>
#include <sys/socket.h>

#include "module/create.h"
#include "module/ssh_client.h"
#include "support/far_side.h"
#include "support/host_objects.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/tcp_client.h"
#include "support/test.h"

namespace {

// What the module asks for, on any thread. Armed with n, its n-th request fails, and `more` that follow at
// once.
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
  void Disarm() { until_failure_ = kNever; }

 private:
  static constexpr long kNever = 1L << 40;
  std::atomic<long> until_failure_{kNever};
  std::atomic<long> more_{0};
};

Resource g_memory;
Resource g_threads;
std::atomic<long> g_blocks{0};  // of memory that the process has and has not given back
thread_local bool t_in_module = false;

// The code of the host, or of the module, to the end of the scope. Only the module's requests fail.
class Inside {
 public:
  explicit Inside(bool module) : before_(std::exchange(t_in_module, module)) {}
  Inside(const Inside&) = delete;
  Inside& operator=(const Inside&) = delete;
  ~Inside() { t_in_module = before_; }

 private:
  const bool before_;
};
constexpr bool kHost = false;
constexpr bool kModule = true;

template <class Call>
auto InModule(Call call) {
  const Inside module(kModule);
  return call();
}

struct Start {
  void* (*function)(void*);
  void* argument;
};

void* RunInModule(void* memory) {
  const Start start = *static_cast<Start*>(memory);
  delete static_cast<Start*>(memory);
  t_in_module = true;
  return start.function(start.argument);
}

}  // namespace

// The linker sends every call of the module and the test here; a std::thread starts inside the C++ runtime and
// is not meant.
extern "C" {
void* __real_malloc(std::size_t size);
void* __wrap_malloc(std::size_t size) {
  if (t_in_module && g_memory.Fails()) return nullptr;
  void* block = __real_malloc(size);
  if (block != nullptr) ++g_blocks;
  return block;
}

void __real_free(void* block);
void __wrap_free(void* block) {
  if (block != nullptr) --g_blocks;
  __real_free(block);
}

int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                          void* argument) {
  if (g_threads.Fails()) return EAGAIN;
  const Inside host(kHost);
  const int result = __real_pthread_create(thread, attributes, RunInModule, new Start{function, argument});
  // The new thread gets ahead of its starter: a starter that has not entered it anywhere yet is found out.
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
[[gnu::noinline]] void operator delete(void* block) noexcept { __wrap_free(block); }
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }
void operator delete[](void* block) noexcept { operator delete(block); }
void operator delete[](void* block, std::size_t) noexcept { operator delete(block); }

namespace {

using gxtest::FarSide;
using gxtest::TcpClient;

class HostStream final : public IPluginStreamRaw, private CReference {
 public:
  explicit HostStream(CRefObj<gxtest::PluginStream> stream) : stream_(std::move(stream)) {}
  GX_FORWARD_REFERENCE();
  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) override {
    const Inside host(kHost);
    return stream_->Read(data, length, got, flags);
  }
  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) override {
    const Inside host(kHost);
    return stream_->Write(data, length, written, flags);
  }
  std::uint32_t Close() override { return stream_->Close(); }

 private:
  const CRefObj<gxtest::PluginStream> stream_;
};

class HostLog final : public LogKeeper {
 public:
  void Log(int level, const char*) override { errors_ += level == kGXModLogError ? 1 : 0; }
  std::atomic<int> errors_{0};
};

int ListeningSockets() {
  int count = 0;
  for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
    int listens = 0;
    socklen_t length = sizeof listens;
    if (getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0) count += listens;
  }
  return count;
}

class MemoryFaults : public gxtest::LeakGate {
 protected:
  // From `init` to `uninit`, with connections between if it comes to that. Though the n-th request for
  // `resource` fails, results tell the truth, each failure costs one connection at most, and nothing is left.
  // False: there were not so many requests.
  bool Live(const char* what, Resource& resource, long n, long more) {
    SCOPED_TRACE(what + std::to_string(n));
    const long blocks = g_blocks;
    const bool sound = !HasFailure();
    HostLog log;
    bool reached = false;
    {
      const CRefObj<gxtest::CreateParams> params(new gxtest::CreateParams);
      const CRefObj<gxtest::PluginStream> stream(new gxtest::PluginStream);
      const CRefObj<IPluginStreamRaw> host_stream(new HostStream(stream));
      resource.Arm(n, more);
      EXPECT_TRUE(InModule([&] { return ssh_control_init(static_cast<IGXModRuntime*>(&log)); }));
      void* made = nullptr;
      const auto create = [&] {
        return ssh_control_create(static_cast<IGXModCreateParams*>(params.get()), &made);
      };
      const bool created = InModule(create) == 1;
      EXPECT_EQ(created, made != nullptr);
      const auto plugin = CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(made));
      std::uint32_t result = kGXModFail;
      if (plugin) {
        const std::uint32_t initialised = InModule([&] { return plugin->InitInstance(host_stream.get()); });
        result = InModule([&] { return plugin->Run(); });
        EXPECT_TRUE(initialised == kGXModOk || result != kGXModOk);
      }
      if (result == kGXModOk) {
        Use(plugin->GetLocalPort(), stream, resource);
      } else {
        EXPECT_GT(resource.Failed(), 0);
        EXPECT_EQ(ListeningSockets(), 0);
        EXPECT_GT(log.errors_ + more, 0) << "the reason is in the log, if there was memory for that";
      }
      if (plugin) InModule([&] { return plugin->ExitInstance(); });
      reached = resource.Failed() > 0;
      resource.Disarm();
      EXPECT_EQ(ListeningSockets(), 0);
    }
    ssh_control_uninit();
    EXPECT_TRUE(!sound || HasFailure() || g_blocks == blocks) << "memory is left; a failure takes some itself";
    return reached;
  }

 private:
  // Two connections; the far side ends one within the life of the other. Whatever goes wrong ends one of them,
  // so nothing here waits long.
  void Use(int port, const CRefObj<gxtest::PluginStream>& stream, const Resource& resource) {
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
  Live("", g_memory, 1L << 30, 0);  // what is made once and stays
  const auto each_fails = [this](const char* what, Resource& resource, long more) {
    long n = 1;
    while (n < 400 && Live(what, resource, n, more)) ++n;
    EXPECT_GT(n, 2);
  };
  each_fails("allocation ", g_memory, 0);
  each_fails("allocation and the next ", g_memory, 1);
  each_fails("thread ", g_threads, 0);
}

}  // namespace
