// What the program gives up once it has started, before it reads what a stranger sends: whoever finds a way to
// run code in it gains little.
//
// By the kernel's word (no_new_privs, seccomp, Landlock) it starts no programs, traces and signals nobody,
// listens nowhere, has no sockets but those of IPv4 and IPv6, and reaches no files but the resolver's and the
// name cache's, and no TCP ports but those that are permitted. UDP goes anywhere: name servers are asked by it.
// Where Unix sockets are needed it has streams of those, too, and no rule holds it to certain paths: Landlock
// has none for them.
#ifndef GX_PEER_CONFINEMENT_H
#define GX_PEER_CONFINEMENT_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace gxtool {

struct Confinement {
  bool system_calls = false;  // by seccomp
  bool files = false;         // by Landlock, since ABI 1
  bool tcp_ports = false;     // by Landlock, since ABI 4

  // For people: "system calls, files, TCP ports", or why there is nothing.
  std::string ToString() const;
};

// What this build can have of this kernel.
Confinement AvailableConfinement();

struct ConfinementNeeds {
  std::string cache_file;                               // empty: none; its folder is written to
  std::optional<std::vector<std::uint16_t>> tcp_ports;  // to connect to; nothing: any
  bool unix_sockets = false;
};

// Confines the calling thread, and those that it starts, for the rest of the process's life. Returns what
// holds: less than what is available where the system refuses.
Confinement Confine(const ConfinementNeeds& needs);

}  // namespace gxtool

#endif  // GX_PEER_CONFINEMENT_H
