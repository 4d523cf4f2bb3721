#include "peer/landlock.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace gxtool {
namespace {

#ifdef __linux__
// System call numbers, the same on every architecture.
constexpr long kCreateRuleset = 444;
constexpr long kAddRule = 445;
constexpr long kRestrictSelf = 446;
constexpr unsigned kVersionFlag = 1;
constexpr int kPathBeneath = 1;
constexpr int kNetPort = 2;

enum FileAccess : std::uint64_t {
  kWriteFile = 1 << 1,
  kReadFile = 1 << 2,
  kReadFolder = 1 << 3,
  kRemoveFile = 1 << 5,
  kMakeFile = 1 << 8,
  kTruncate = 1 << 14,
};
constexpr std::uint64_t kBindTcp = 1 << 0;
constexpr std::uint64_t kConnectTcp = 1 << 1;
constexpr std::uint64_t kAllScopes = 3;  // abstract sockets and signals of other processes

struct RulesetAttributes {
  std::uint64_t files;
  std::uint64_t net;     // since ABI 4
  std::uint64_t scoped;  // since ABI 6
};
struct __attribute__((packed)) PathAttributes {
  std::uint64_t access;
  std::int32_t parent;
};
struct PortAttributes {
  std::uint64_t access;
  std::uint64_t port;
};

// Each ABI version added rights.
std::uint64_t AllFileAccess(int abi) {
  const int rights[] = {13, 14, 15, 15, 16};
  return (std::uint64_t{1} << rights[(abi > 5 ? 5 : abi) - 1]) - 1;
}
#endif

}  // namespace

#ifdef __linux__

int LandlockAbi() {
  const long abi = syscall(kCreateRuleset, nullptr, std::size_t{0}, kVersionFlag);
  return abi > 0 ? static_cast<int>(abi) : 0;
}

LandlockRules::LandlockRules(bool tcp_connect) : abi_(LandlockAbi()), tcp_connect_(tcp_connect && abi_ >= 4) {
  if (abi_ == 0) return;
  RulesetAttributes attributes{};
  attributes.files = AllFileAccess(abi_);
  if (abi_ >= 4) attributes.net = kBindTcp | (tcp_connect ? kConnectTcp : 0);
  if (abi_ >= 6) attributes.scoped = kAllScopes;
  // Older kernels accept unknown fields that are zero.
  rules_.Reset(static_cast<int>(syscall(kCreateRuleset, &attributes, sizeof attributes, 0U)));
}

void LandlockRules::PermitReading(const std::string& path) { Permit(path, kReadFile | kReadFolder); }

void LandlockRules::PermitReplacingFilesIn(const std::string& folder) {
  Permit(folder, kReadFile | kReadFolder | kWriteFile | kRemoveFile | kMakeFile | kTruncate);
}

void LandlockRules::Permit(const std::string& path, std::uint64_t access) {
  const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!rules_ || !place) return;
  PathAttributes attributes{access & AllFileAccess(abi_), place.get()};
  if (syscall(kAddRule, rules_.get(), kPathBeneath, &attributes, 0U) == 0) return;
  // Rights that apply only to folders are refused for a file: leave them out.
  attributes.access &= static_cast<std::uint64_t>(kReadFile | kWriteFile);
  syscall(kAddRule, rules_.get(), kPathBeneath, &attributes, 0U);
}

void LandlockRules::PermitConnecting(std::uint16_t port) {
  const PortAttributes attributes{kConnectTcp, port};
  if (rules_ && tcp_connect_) syscall(kAddRule, rules_.get(), kNetPort, &attributes, 0U);
}

bool LandlockRules::Apply() { return rules_ && syscall(kRestrictSelf, rules_.get(), 0U) == 0; }

#else

int LandlockAbi() { return 0; }
LandlockRules::LandlockRules(bool tcp_connect) : abi_(0), tcp_connect_(tcp_connect) {}
void LandlockRules::PermitReading(const std::string&) {}
void LandlockRules::PermitReplacingFilesIn(const std::string&) {}
void LandlockRules::PermitConnecting(std::uint16_t) {}
bool LandlockRules::Apply() { return false; }

#endif

}  // namespace gxtool
