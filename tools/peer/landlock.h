// Landlock through its system calls: the build machine's kernel headers may be too old.
#ifndef GX_PEER_LANDLOCK_H
#define GX_PEER_LANDLOCK_H

#include <cstdint>
#include <string>

#include "common/descriptor.h"

namespace gxtool {

// The running kernel's ABI version; 0 without Landlock.
int LandlockAbi();

// A set of rules: everything that no rule permits is refused. Threads: one at a time.
class LandlockRules {
 public:
  // Covers all file access that the kernel can restrict, other processes, and TCP ports since ABI 4. Without
  // `tcp_connect`, connecting to any port stays allowed.
  explicit LandlockRules(bool tcp_connect);

  // A path that does not exist is ignored.
  void PermitReading(const std::string& path);
  void PermitReplacingFilesIn(const std::string& folder);
  void PermitConnecting(std::uint16_t port);

  // Returns false, with nothing confined, when the kernel refuses. no_new_privs must be set before.
  bool Apply();

 private:
  void Permit(const std::string& path, std::uint64_t access);

  const int abi_;
  const bool tcp_connect_;
  Descriptor rules_;
};

}  // namespace gxtool

#endif  // GX_PEER_LANDLOCK_H
