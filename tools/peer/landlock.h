// Landlock by its system calls: the kernel's headers may be older than the kernel.
#ifndef GX_PEER_LANDLOCK_H
#define GX_PEER_LANDLOCK_H

#include <cstdint>
#include <string>

#include "common/descriptor.h"

namespace gxtool {

// What the running kernel has: 0 without Landlock.
int LandlockAbi();

// A set of rules: what none of them permits is refused. Threads: one at a time.
class LandlockRules {
 public:
  // Everything that the kernel can refuse about files, about other processes and, since ABI 4, about TCP ports;
  // without `tcp_connect` any port may be connected to.
  explicit LandlockRules(bool tcp_connect);

  // A path that does not exist permits nothing.
  void PermitReading(const std::string& path);
  void PermitReplacingFilesIn(const std::string& folder);
  void PermitConnecting(std::uint16_t port);

  // False: the kernel refuses, and nothing is confined. The process has given up new privileges before.
  bool Apply();

 private:
  void Permit(const std::string& path, std::uint64_t access);

  const int abi_;
  const bool tcp_connect_;
  Descriptor rules_;
};

}  // namespace gxtool

#endif  // GX_PEER_LANDLOCK_H
