// Drops rights after the start, before data from outside is read, so that an attacker who runs code in this
// program gains little.
//
// With no_new_privs, seccomp and Landlock the kernel forbids starting programs, tracing and signalling
// processes, listening, sockets other than IPv4 and IPv6, files other than the resolver's and the name cache's,
// and TCP ports other than the permitted ones. UDP remains free, for name servers. Where Unix sockets are
// needed, stream ones are allowed for any path: Landlock cannot restrict their paths.
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

  // A text for people: "system calls, files, TCP ports", or why nothing is confined.
  std::string ToString() const;
};

// What this build can confine on this kernel.
Confinement AvailableConfinement();

struct ConfinementNeeds {
  std::string cache_file;  // empty: no cache; otherwise its folder must be writable
  std::optional<std::vector<std::uint16_t>> tcp_ports;  // allowed for connecting; empty: any
  bool unix_sockets = false;
};

// Confines the calling thread and the threads that it starts, for the rest of the process. Returns what is in
// effect: less than what is available when the system refuses.
Confinement Confine(const ConfinementNeeds& needs);

}  // namespace gxtool

#endif  // GX_PEER_CONFINEMENT_H
