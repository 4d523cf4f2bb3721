// The smallest host: forwards a local port through the standard input and output of a command.
//   minimal_host HOST:PORT COMMAND [ARG...]
//   minimal_host 127.0.0.1:22 ssh -T box gx-ssh-peer --raw
//
// It prints the local address and runs until its standard input ends, the command ends, or Ctrl-C. Start
// reading at main(). Errors of system calls are ignored here; docs/host-guide.md lists what a real host adds.
#include <dlfcn.h>
#include <gxmod/control_ssh.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

// Reference counting for the host's objects. Create one with new and put it into a CRefObj at once.
template <class Interface>
struct Counted : Interface {
  std::int64_t AddRef() final { return ++count; }
  std::int64_t Release() final {
    const std::int64_t left = --count;
    if (left == 0) delete this;
    return left;
  }
  std::atomic<std::int64_t> count{0};
};

// The host's services for the module. Not reference-counted: it outlives the module's use of it.
struct Runtime final : IGXModRuntime {
  void Log(int /*level*/, const char* text) override { std::fprintf(stderr, "module: %s\n", text); }
  int GetConfig(bool, const char*, const char*, IGXModData**, const char*) override { return 0; }
  int SaveConfig(bool, const char*, const char*, const char*) override { return 0; }
  const char* GetEnv(const char*) override { return nullptr; }
};

// A property for create(): the interface's name.
struct Name final : Counted<IGXModData> {
  int GetType() const override { return kGXModDataText; }
  const char* GetText() const override { return kControlSshInterfaceName; }
  std::uint64_t GetUInt64() const override { return 0; }
};
struct Version final : Counted<IGXModData> {
  int GetType() const override { return kGXModDataUInt64; }
  const char* GetText() const override { return ""; }
  std::uint64_t GetUInt64() const override { return GXModPackVersion(kControlSshVersion); }
};
struct Request final : Counted<IGXModCreateParams> {
  IGXModData* GetProperty(const char* key) override {
    if (std::strcmp(key, kGXModPropertyInterfaceName) == 0) return name.get();
    return std::strcmp(key, kGXModPropertyVersion) == 0 ? version.get() : nullptr;
  }
  const CRefObj<IGXModData> name{new Name}, version{new Version};
};

// The stream: one descriptor to read from, one to write to. Both are sockets, because shutdown() wakes a thread
// that is blocked on one; with pipes Close would need a poll() in Read and Write.
struct Stream final : Counted<IPluginStreamRaw> {
  Stream(int a_input, int a_output) : input(a_input), output(a_output) {}
  ~Stream() override { close(input), close(output); }
  std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned) override {
    return Result(read(input, data, length), 1, got);
  }
  std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned) override {
    return Result(write(output, data, length), 0, written);
  }
  std::uint32_t Close() override { return shutdown(input, SHUT_RDWR), shutdown(output, SHUT_RDWR), kGXModOk; }
  // A system call that a signal interrupted has moved no bytes; the module calls again.
  static std::uint32_t Result(ssize_t moved, ssize_t least, unsigned* count) {
    *count = moved > 0 ? static_cast<unsigned>(moved) : 0;
    return moved >= least || (moved < 0 && errno == EINTR) ? kGXModOk : kGXModFail;
  }
  const int input, output;
};

struct Listener final : Counted<IControlSshListener> {
  explicit Listener(const char* a_target) : target(a_target) {}
  void OnLocalAddress(const char* address, std::uint16_t port) override {
    std::printf("%s:%u\n", address, unsigned{port}), std::fflush(stdout);
  }
  void OnExit() override {}
  const char* GetRemoteAddress() override { return target; }
  const char* const target;
};

// Starts the far side; its standard input and output are the other ends of the stream.
CRefObj<Stream> StartFarSide(char** command, const sigset_t& signal_mask, pid_t* child) {
  int from_child[2] = {-1, -1}, to_child[2] = {-1, -1};
  for (int* pair : {from_child, to_child}) socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
  *child = fork();
  if (*child == 0) {
    sigprocmask(SIG_SETMASK, &signal_mask, nullptr);
    dup2(to_child[1], 0), dup2(from_child[1], 1);
    for (const int fd : {from_child[0], from_child[1], to_child[0], to_child[1]}) close(fd);
    execvp(command[0], command);
    _exit(127);
  }
  close(from_child[1]), close(to_child[1]);
  return new Stream(from_child[0], to_child[0]);
}

// True when standard input had data; false at its end and after a signal.
bool WaitForInput(const sigset_t& signal_mask) {
  char ignored[256];
  fd_set input{};
  FD_SET(0, &input);
  return pselect(1, &input, nullptr, nullptr, nullptr, &signal_mask) == 1 && read(0, ignored, 256) > 0;
}

bool Forward(const gxlink_module_t& module, Stream* stream, const char* target, const sigset_t& signal_mask) {
  const CRefObj<Request> request(new Request);
  void* created = nullptr;
  if (module.create(static_cast<IGXModCreateParams*>(request.get()), &created) != 1) return false;
  const auto plugin = CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(created));
  plugin->SetListener(CRefObj<Listener>(new Listener(target)).get());
  plugin->InitInstance(stream);
  const bool running = plugin->Run() == kGXModOk;  // the listener has received the address
  while (running && WaitForInput(signal_mask)) continue;
  plugin->ExitInstance();  // closes the stream, stops every thread, closes the port
  return running;
}

int main(int argc, char** argv) {
  if (argc < 3) return std::fprintf(stderr, "usage: minimal_host HOST:PORT COMMAND [ARG...]\n"), 2;
  // These signals only end the wait. The module's threads inherit the mask.
  sigset_t ours, before;
  sigemptyset(&ours);
  for (const int number : {SIGINT, SIGTERM, SIGCHLD}) std::signal(number, [](int) {}), sigaddset(&ours, number);
  sigprocmask(SIG_BLOCK, &ours, &before);
  // Start the child first: loading the module makes the process ignore SIGPIPE, and a child would inherit that.
  pid_t child = 0;
  CRefObj<Stream> stream = StartFarSide(argv + 2, before, &child);
  // The CMake package and pkg-config provide the module's path as GXMOD_MODULE.
  void* const library = dlopen(GXMOD_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return std::fprintf(stderr, "%s\n", dlerror()), 1;
  const auto get_entry = reinterpret_cast<gxmod_get_entrypoint_t>(dlsym(library, kGXModEntryPoint));
  const gxlink_module_t& module = *get_entry();
  Runtime runtime;
  module.init(&runtime);
  const bool ran = Forward(module, stream.get(), argv[1], before);  // also releases what the module created
  module.uninit();
  dlclose(library);
  stream = nullptr;            // closes the descriptors,
  waitpid(child, nullptr, 0);  // so the far side ends
  return ran ? 0 : 1;
}
