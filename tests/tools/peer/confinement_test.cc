#include "peer/confinement.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "support/temp_dir.h"
#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

struct Deed {
  const char* name;
  std::function<long()> act;  // negative: refused, and errno tells why
};

bool Refused(const Deed& deed) {
  errno = 0;
  return deed.act() < 0 && (errno == EPERM || errno == EACCES || errno == ENOSYS);
}

// What a confined process says of itself: a line for each deed that goes another way than it should.
std::string Confined(const ConfinementNeeds& needs, const std::vector<Deed>& forbidden,
                     const std::vector<Deed>& permitted) {
  Pipe words = MakePipe();
  const pid_t child = ::fork();
  if (child == 0) {
    std::string text;
    Confine(needs);
    for (const Deed& deed : forbidden) text += Refused(deed) ? "" : std::string(deed.name) + " is possible\n";
    for (const Deed& deed : permitted) {
      if (deed.act() < 0) text += std::string(deed.name) + " fails: " + std::strerror(errno) + '\n';
    }
    text += "end";
    ::_exit(::write(words.write.get(), text.data(), text.size()) < 0 ? 1 : 0);
  }
  words.write.Reset();
  const std::string text = ReadToEnd(words.read.get());
  ::waitpid(child, nullptr, 0);
  return text;
}

long Connect(int port) {
  const Descriptor fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// Opens and closes again.
long Open(const std::string& path, int flags) {
  return Descriptor(::open(path.c_str(), flags | O_CLOEXEC, 0600)).get();
}

long Socket(int family, int type) { return Descriptor(::socket(family, type | SOCK_CLOEXEC, 0)).get(); }

// What SECURITY.md says of the far side's confinement.
class ConfinementTest : public testing::Test {
 protected:
  ConfinementTest() { std::ofstream(other_.path() + "/secret") << "x"; }

  const LocalTarget permitted_;
  const LocalTarget forbidden_;
  const TempDir cache_;
  const TempDir other_;
  const ConfinementNeeds needs_{cache_.path() + "/names.json",
                                {{static_cast<std::uint16_t>(permitted_.port())}}};
};

TEST_F(ConfinementTest, SystemCallsThatAStrangerWouldLikeFail) {
  if (!AvailableConfinement().system_calls) GTEST_SKIP() << "no seccomp";
  char none[] = "";
  char* const arguments[] = {none, nullptr};
  const Descriptor stream(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const Descriptor datagram(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in any{};
  any.sin_family = AF_INET;
  char byte = 0;
  iovec memory{&byte, 1};
  const std::vector<Deed> forbidden = {
      {"execve", [&] { return ::execv("/bin/true", arguments); }},
      {"execveat", [&] { return ::syscall(SYS_execveat, AT_FDCWD, "/bin/true", arguments, arguments, 0); }},
      {"fork", [] { return ::fork(); }},
      {"clone3", [] { return ::syscall(SYS_clone3, nullptr, 0); }},
      {"ptrace", [] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
      {"reading memory",
       [&] { return ::syscall(SYS_process_vm_readv, ::getpid(), &memory, 1, &memory, 1, 0); }},
      {"kill", [] { return ::kill(::getppid(), 0); }},
      {"bind", [&] { return ::bind(datagram.get(), reinterpret_cast<sockaddr*>(&any), sizeof any); }},
      {"listen", [&] { return ::listen(stream.get(), 1); }},
      {"a local datagram socket", [] { return Socket(AF_UNIX, SOCK_DGRAM); }},
      {"a local packet socket", [] { return Socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK); }},
      {"no family", [] { return Socket(AF_UNSPEC, SOCK_STREAM); }},
      {"a socket for X.25", [] { return Socket(AF_X25, SOCK_SEQPACKET); }},
      {"a netlink socket", [] { return Socket(AF_NETLINK, SOCK_RAW); }},
      {"a packet socket", [] { return Socket(AF_PACKET, SOCK_RAW); }},
      {"mount", [] { return ::mount("none", "/nowhere", "tmpfs", 0, nullptr); }},
      {"chroot", [&] { return ::chroot(other_.path().c_str()); }},
      {"unshare", [] { return ::unshare(CLONE_NEWUSER); }},
      {"a module", [] { return ::syscall(SYS_init_module, "", 0, ""); }},
      {"bpf", [] { return ::syscall(SYS_bpf, 0, nullptr, 0); }},
      {"io_uring", [] { return ::syscall(SYS_io_uring_setup, 1, nullptr); }},
      {"keys", [] { return ::syscall(SYS_keyctl, 0, 0); }},
      {"setuid", [] { return ::setuid(::getuid()); }},
      {"typing", [] { return ::ioctl(0, TIOCSTI, "x"); }},
  };
  const std::vector<Deed> permitted = {
      {"a thread", [] { return std::thread([] {}).join(), 0; }},
      {"UDP", [] { return Socket(AF_INET6, SOCK_DGRAM); }},
  };
  const Deed local = {"a local socket", [] { return Socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK); }};
  EXPECT_EQ(Confined(needs_, forbidden, permitted), "end");
  EXPECT_EQ(Confined(needs_, {local}, {}), "end");
  ConfinementNeeds more = needs_;
  more.unix_sockets = true;
  EXPECT_EQ(Confined(more, forbidden, {local}), "end");
}

TEST_F(ConfinementTest, OnlyTheCachesFolderIsWrittenTo) {
  if (!AvailableConfinement().files) GTEST_SKIP() << "no Landlock";
  const std::string file = cache_.path() + "/names.json";
  const std::vector<Deed> forbidden = {
      {"reading /etc/passwd", [] { return Open("/etc/passwd", O_RDONLY); }},
      {"reading /proc", [] { return Open("/proc/self/environ", O_RDONLY); }},
      {"reading elsewhere", [&] { return Open(other_.path() + "/secret", O_RDONLY); }},
      {"writing elsewhere", [&] { return Open(other_.path() + "/new", O_WRONLY | O_CREAT); }},
      {"deleting elsewhere", [&] { return ::unlink((other_.path() + "/secret").c_str()); }},
      {"writing the hosts file", [] { return Open("/etc/hosts", O_WRONLY); }},
      {"making a folder", [&] { return ::mkdir((cache_.path() + "/folder").c_str(), 0700); }},
      {"making a link", [&] { return ::symlink("/etc/passwd", (cache_.path() + "/link").c_str()); }},
      {"moving in", [&] { return ::rename((other_.path() + "/secret").c_str(), file.c_str()); }},
  };
  const std::vector<Deed> permitted = {
      {"reading the hosts file", [] { return Open("/etc/hosts", O_RDONLY); }},
      {"reading the resolver's file", [] { return Open("/etc/resolv.conf", O_RDONLY); }},
      {"reading chance", [] { return Open("/dev/urandom", O_RDONLY); }},
      {"locking",
       [&] {
         return ::flock(Descriptor(::open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)).get(),
                        LOCK_EX);
       }},
      {"writing", [&] { return Open(file + ".new", O_RDWR | O_CREAT | O_TRUNC); }},
      {"replacing", [&] { return ::rename((file + ".new").c_str(), file.c_str()); }},
      {"deleting", [&] { return ::unlink(file.c_str()); }},
  };
  EXPECT_EQ(Confined(needs_, forbidden, permitted), "end");
  const ConfinementNeeds relative{std::filesystem::relative(file), needs_.tcp_ports};
  EXPECT_EQ(Confined(relative, {}, permitted), "end");
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
