#include "peer/confinement.h"

#include "peer/landlock.h"

#ifdef GX_SECCOMP
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#endif
#ifdef __linux__
#include <linux/sched.h>
#include <sys/prctl.h>
#endif

#include <filesystem>
#include <system_error>
#include <utility>

namespace gxtool {
namespace {

// Builds with sanitizers skip this, because sanitizers need the dropped rights.
#ifdef GX_CONFINEMENT
constexpr bool kConfines = true;
#else
constexpr bool kConfines = false;
#endif

constexpr std::uint16_t kDnsPort = 53;

#ifdef GX_SECCOMP

constexpr const char* kForbiddenCalls[] = {
    // other programs and processes
    "execve", "execveat", "fork", "vfork", "ptrace", "process_vm_readv", "process_vm_writev", "process_madvise",
    "kcmp", "pidfd_open", "pidfd_getfd", "pidfd_send_signal", "kill", "tkill", "rt_sigqueueinfo",
    "rt_tgsigqueueinfo", "setpriority", "prlimit64",
    // listening
    "bind", "listen", "accept", "accept4",
    // file systems
    "mount", "umount", "umount2", "pivot_root", "chroot", "move_mount", "open_tree", "fsopen", "fsmount",
    "fsconfig", "fspick", "mount_setattr", "swapon", "swapoff", "quotactl", "quotactl_fd", "mknod", "mknodat",
    "name_to_handle_at", "open_by_handle_at", "fanotify_init",
    // the kernel
    "init_module", "finit_module", "delete_module", "kexec_load", "kexec_file_load", "reboot", "bpf",
    "perf_event_open", "userfaultfd", "syslog", "acct", "iopl", "ioperm", "modify_ldt", "vm86", "personality",
    "settimeofday", "clock_settime", "clock_adjtime", "adjtimex", "stime", "sethostname", "setdomainname",
    "vhangup", "add_key", "request_key", "keyctl",
    // io_uring would bypass these rules
    "io_uring_setup", "io_uring_enter", "io_uring_register",
    // privileges
    "setns", "unshare", "capset", "setuid", "setgid", "setreuid", "setregid", "setresuid", "setresgid",
    "setfsuid", "setfsgid", "setgroups"};

// Collects rules and remembers whether all were accepted.
class CallFilter {
 public:
  CallFilter() : filter_(seccomp_init(SCMP_ACT_ALLOW), seccomp_release), good_(filter_ != nullptr) {}

  template <class... Conditions>
  void Forbid(const char* call, Conditions... conditions) {
    const int number = seccomp_syscall_resolve_name(call);
    if (!good_ || number == __NR_SCMP_ERROR) return;  // unknown on this machine or to the library
    const int result =
        seccomp_rule_add(filter_.get(), SCMP_ACT_ERRNO(EPERM), number, sizeof...(conditions), conditions...);
    good_ = result == 0 || result == -EDOM;  // -EDOM: only some of the machine's ABIs have the call
  }
  void Missing(const char* call) {
    if (good_) {
      good_ =
          seccomp_rule_add(filter_.get(), SCMP_ACT_ERRNO(ENOSYS), seccomp_syscall_resolve_name(call), 0) == 0;
    }
  }
  bool Load() { return good_ && seccomp_load(filter_.get()) == 0; }

 private:
  const std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter_;
  bool good_;
};

// Allows only stream sockets of the local kind, if `unix_streams`; otherwise no local sockets.
void ForbidSockets(CallFilter& filter, bool unix_streams) {
  static_assert(AF_UNIX == 1 && AF_INET == 2 && AF_INET6 > AF_INET);
  filter.Forbid("socket", SCMP_A0(SCMP_CMP_LT, scmp_datum_t{AF_INET} - (unix_streams ? 1 : 0)));
  constexpr scmp_datum_t kTypes = 0xF;  // without flags
  for (scmp_datum_t type = 0; unix_streams && type <= kTypes; ++type) {
    if (type == SOCK_STREAM) continue;
    filter.Forbid("socket", SCMP_A0(SCMP_CMP_EQ, AF_UNIX), SCMP_A1(SCMP_CMP_MASKED_EQ, kTypes, type));
  }
  for (int family = AF_INET + 1; family < AF_INET6; ++family) {
    filter.Forbid("socket", SCMP_A0(SCMP_CMP_EQ, static_cast<scmp_datum_t>(family)));
  }
  filter.Forbid("socket", SCMP_A0(SCMP_CMP_GT, AF_INET6));
}

bool ForbidCalls(bool unix_streams) {
  CallFilter filter;
  for (const char* const call : kForbiddenCalls) filter.Forbid(call);
  // Threads are allowed, processes are not. clone3 is hidden, because filters cannot see its flags; the C
  // library then uses clone.
  filter.Forbid("clone", SCMP_A0(SCMP_CMP_MASKED_EQ, CLONE_THREAD, 0));
  filter.Missing("clone3");
  ForbidSockets(filter, unix_streams);
  // Inserting text into a terminal's input would run shell commands.
  for (const scmp_datum_t request : {scmp_datum_t{TIOCSTI}, scmp_datum_t{0x541C /* TIOCLINUX */}}) {
    filter.Forbid("ioctl", SCMP_A1(SCMP_CMP_MASKED_EQ, 0xffffffff, request));
  }
  return filter.Load();
}

bool HasSeccomp() { return prctl(PR_GET_SECCOMP, 0, 0, 0, 0) >= 0; }

#else

bool ForbidCalls(bool /*unix_streams*/) { return false; }
bool HasSeccomp() { return false; }

#endif

// The folder of the file that the path leads to, with all links resolved.
std::filesystem::path RealFolder(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::weakly_canonical(path, ignored).parent_path();
}

bool RestrictAccess(const ConfinementNeeds& needs) {
  LandlockRules rules(needs.tcp_ports.has_value());
  for (const char* const file : {"/etc/hosts", "/etc/resolv.conf", "/dev/urandom"}) rules.PermitReading(file);
  // A service that updates the file replaces it with a new one, so permit its folder.
  if (const auto folder = RealFolder("/etc/resolv.conf"); folder != "/etc" && folder != "/") {
    rules.PermitReading(folder);
  }
  if (!needs.cache_file.empty()) {
    std::error_code ignored;
    const std::filesystem::path file = std::filesystem::absolute(needs.cache_file, ignored);
    rules.PermitReplacingFilesIn(file.parent_path());
    rules.PermitReading(std::filesystem::weakly_canonical(file, ignored));  // a link
  }
  if (needs.tcp_ports) {
    rules.PermitConnecting(kDnsPort);
    for (const std::uint16_t port : *needs.tcp_ports) rules.PermitConnecting(port);
  }
  return rules.Apply();
}

}  // namespace

std::string Confinement::ToString() const {
  if (!kConfines) return "nothing, in this build";
  std::string text;
  for (const auto& [holds, name] :
       {std::pair{system_calls, "system calls"}, {files, "files"}, {tcp_ports, "TCP ports"}}) {
    if (holds) text.append(text.empty() ? "" : ", ").append(name);
  }
  return text.empty() ? "nothing, on this system" : text;
}

Confinement AvailableConfinement() {
  const int abi = kConfines ? LandlockAbi() : 0;
  return {kConfines && HasSeccomp(), abi >= 1, abi >= 4};
}

Confinement Confine(const ConfinementNeeds& needs) {
  Confinement result;
#ifdef __linux__
  if (!kConfines || prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return result;
#endif
  result.files = RestrictAccess(needs);
  result.tcp_ports = result.files && needs.tcp_ports && LandlockAbi() >= 4;
  result.system_calls = ForbidCalls(needs.unix_sockets);
  return result;
}

}  // namespace gxtool
