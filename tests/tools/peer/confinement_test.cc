#include "peer/confinement.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "support/tcp_client.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

struct Deed {
  std::string name;
  std::function<long()> act;  // negative: it failed, and errno tells why
};

bool Refused(const Deed& deed) {
  return deed.act() < 0 && (errno == EPERM || errno == EACCES || errno == ENOSYS);
}

// Tries the deeds in a confined process. Returns a line for each wrong result, and "end".
std::string Confined(const ConfinementNeeds& needs, const std::vector<Deed>& forbidden,
                     const std::vector<Deed>& permitted) {
  Pipe words = MakePipe();
  const pid_t child = ::fork();
  if (child == 0) {
    std::string text;
    Confine(needs);
    for (const Deed& deed : forbidden) text += Refused(deed) ? "" : deed.name + " is possible\n";
    for (const Deed& deed : permitted) {
      if (deed.act() < 0) text += deed.name + " fails: " + std::strerror(errno) + '\n';
    }
    text += "end";
    ::_exit(::write(words.write.get(), text.data(), text.size()) < 0 ? 1 : 0);
  }
  words.write.Reset();
  const std::string text = ReadToEnd(words.read.get());
  ::waitpid(child, nullptr, 0);
  return text;
}

long Connect(int port) { return TcpClient(port).socket_handle(); }

// Closes the file again.
long Open(const std::string& path, int flags) {
  return Descriptor(::open(path.c_str(), flags | O_CLOEXEC, 0600)).get();
}

long Socket(int family, int type) { return Descriptor(::socket(family, type | SOCK_CLOEXEC, 0)).get(); }

// SECURITY.md promises these to the user.
class ConfinementTest : public testing::Test {
 protected:
  ConfinementTest() { std::ofstream(secret_) << "x"; }

  const LocalTarget permitted_;
  const LocalTarget forbidden_;
  const TempDir cache_;
  const TempDir other_;
  const std::string secret_ = other_.path() + "/secret";
  const ConfinementNeeds needs_{cache_.path() + "/names.json",
                                {{static_cast<std::uint16_t>(permitted_.port())}}};
};

TEST_F(ConfinementTest, SystemCallsThatAStrangerWouldLikeFail) {
  if (!AvailableConfinement().system_calls) GTEST_SKIP() << "no seccomp";
  EXPECT_EQ((Confinement{true, false, true}.ToString()), "system calls, TCP ports");
  std::vector<Deed> forbidden = {
      {"fork", [] { return ::fork(); }},
      {"typing", [] { return ::ioctl(0, TIOCSTI, "x"); }},
      {"typing on a console", [] { return ::ioctl(0, 0x541C /* TIOCLINUX */, "x"); }},
  };
  // Unconfined, these calls with zeros fail with other errors, or change only the calling process.
  constexpr int kCalls[] = {// other programs and processes
                            SYS_execve, SYS_execveat, SYS_clone3, SYS_ptrace, SYS_process_vm_readv, SYS_kcmp,
                            SYS_pidfd_open, SYS_kill, SYS_tkill,
                            // listening, file systems
                            SYS_bind, SYS_listen, SYS_accept4, SYS_mount, SYS_pivot_root, SYS_chroot,
                            SYS_mknodat, SYS_fanotify_init, SYS_open_by_handle_at,
                            // the kernel, privileges
                            SYS_init_module, SYS_finit_module, SYS_bpf, SYS_userfaultfd, SYS_perf_event_open,
                            SYS_add_key, SYS_keyctl, SYS_io_uring_setup, SYS_io_uring_enter, SYS_setns,
                            SYS_unshare, SYS_capset, SYS_setuid, SYS_setresgid, SYS_setgroups};
  for (const int call : kCalls) {
    forbidden.push_back(
        {"system call " + std::to_string(call), [call] { return ::syscall(call, 0, 0, 0, 0, 0, 0); }});
  }
  for (int family = 0; family < AF_MAX; ++family) {
    if (family == AF_UNIX || family == AF_INET || family == AF_INET6) continue;
    forbidden.push_back(
        {"a socket of family " + std::to_string(family), [family] { return Socket(family, SOCK_SEQPACKET); }});
  }
  for (int type = SOCK_DGRAM; type <= SOCK_PACKET; ++type) {
    forbidden.push_back({"a local socket of type " + std::to_string(type),
                         [type] { return Socket(AF_UNIX, type | SOCK_NONBLOCK); }});
  }
  const std::vector<Deed> permitted = {
      {"a thread", [] { return std::thread([] {}).join(), 0; }},
      {"UDP", [] { return Socket(AF_INET6, SOCK_DGRAM); }},
  };
  const Deed local = {"a local socket", [] { return Socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK); }};
  ConfinementNeeds more = needs_;
  more.unix_sockets = true;
  EXPECT_EQ(Confined(more, forbidden, {local}), "end");
  forbidden.push_back(local);
  EXPECT_EQ(Confined(needs_, forbidden, permitted), "end");
}

TEST_F(ConfinementTest, OnlyTheCachesFolderIsWrittenTo) {
  if (!AvailableConfinement().files) GTEST_SKIP() << "no Landlock";
  const std::string& file = needs_.cache_file;
  const std::vector<Deed> forbidden = {
      {"reading /etc/passwd", [] { return Open("/etc/passwd", O_RDONLY); }},
      {"reading elsewhere", [&] { return Open(secret_, O_RDONLY); }},
      {"writing elsewhere", [&] { return Open(other_.path() + "/new", O_WRONLY | O_CREAT); }},
      {"deleting elsewhere", [&] { return ::unlink(secret_.c_str()); }},
      {"writing the hosts file", [] { return Open("/etc/hosts", O_WRONLY); }},
      {"making a folder", [&] { return ::mkdir((cache_.path() + "/folder").c_str(), 0700); }},
      {"making a link", [&] { return ::symlink("/etc/passwd", (cache_.path() + "/link").c_str()); }},
      {"moving in", [&] { return ::rename(secret_.c_str(), file.c_str()); }},
  };
  const std::vector<Deed> permitted = {
      {"reading the hosts file", [] { return Open("/etc/hosts", O_RDONLY); }},
      {"reading the resolver's file", [] { return Open("/etc/resolv.conf", O_RDONLY); }},
      {"reading chance", [] { return Open("/dev/urandom", O_RDONLY); }},
      {"writing", [&] { return Open(file + ".new", O_RDWR | O_CREAT | O_TRUNC); }},
      {"replacing", [&] { return ::rename((file + ".new").c_str(), file.c_str()); }},
      {"deleting", [&] { return ::unlink(file.c_str()); }},
  };
  EXPECT_EQ(Confined(needs_, forbidden, permitted), "end");
  ConfinementNeeds needs{std::filesystem::relative(file), {}};
  EXPECT_EQ(Confined(needs, {}, permitted), "end");
  needs.cache_file = cache_.path() + "/link";
  std::filesystem::create_symlink(secret_, needs.cache_file);
  EXPECT_EQ(Confined(needs, {{"writing where a link leads", [&] { return Open(needs.cache_file, O_WRONLY); }}},
                     {{"reading it", [&] { return Open(needs.cache_file, O_RDONLY); }}}),
            "end");
}

TEST_F(ConfinementTest, OnlyPermittedPortsAreConnectedTo) {
  if (!AvailableConfinement().tcp_ports) GTEST_SKIP() << "no Landlock for TCP";
  const Deed good = {"the permitted port", [&] { return Connect(permitted_.port()); }};
  const Deed bad = {"another port", [&] { return Connect(forbidden_.port()); }};
  const Deed names = {"a name server", [] { return Connect(53) < 0 && errno == EACCES ? -1 : 0; }};
  EXPECT_EQ(Confined(needs_, {bad}, {good, names}), "end");
  EXPECT_EQ(Confined({}, {}, {good, bad}), "end") << "where any port is permitted";
}

}  // namespace
}  // namespace gxtool
