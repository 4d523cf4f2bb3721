// The command line of gx-ssh.
#ifndef GX_SSH_OPTIONS_H
#define GX_SSH_OPTIONS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "gx-ssh/forward.h"
#include "gx-ssh/log_file.h"

namespace gxtool {

enum class PrintFormat { kAddress, kPort, kJson, kEnvironment, kSshConfig, kNothing };

struct Options {
  std::vector<std::string> carrier;  // empty with `local`
  bool local = false;
  std::string target = "127.0.0.1:22";
  std::string module_path;

  bool standard_io = false;  // -W
  std::string connect_path;  // if not empty: only carry standard input and output to this Unix socket
  std::string run;           // a shell command; empty: none
  bool probe = false;        // only measure the carrier
  bool background = false;

  std::optional<ListenAddress> listen;  // its connections go to `target`
  std::vector<Forward> forwards;        // -L
  bool user_only = false;
  bool reconnect = false;
  int reconnect_attempts = 0;  // in a row; 0: no limit

  bool bring = false;  // the carrier leads to a shell
  bool bring_once = false;
  std::string bring_folder;        // on the remote computer; empty: the default
  std::string peer_folder;         // on this computer: the programs to bring
  std::vector<std::string> allow;  // with `bring`, in addition to our targets

  bool raw = false;
  bool allow_channel_list = false;
  std::chrono::milliseconds connect_timeout{10'000};
  std::chrono::milliseconds keepalive{15'000};  // 0: off
  int keepalive_count = 3;

  PrintFormat print = PrintFormat::kAddress;  // kNothing where standard output is used otherwise
  std::string name = "gx-ssh";                // the far side's host name in the ssh configuration
  bool json = false;
  std::string port_file;
  int ready_fd = -1;                               // gets a line when everything is ready; -1: none
  std::optional<std::chrono::milliseconds> stats;  // the interval of the statistics
  std::string log_file;
  LogFormat log_format = LogFormat::kText;
  bool quiet = false;
  int verbosity = 0;
  bool show_version = false;

  // The targets that a brought gx-ssh-peer has to permit.
  std::vector<std::string> PermittedTargets() const;
  // True when gx-ssh itself listens, instead of leaving the module's port open to everyone.
  bool HasListener() const { return listen || reconnect || user_only || !forwards.empty(); }
  // All addresses to listen at, in the order in which they are printed.
  std::vector<Forward> Listeners() const;
  // All targets that may be requested from the far side.
  std::vector<std::string> Targets() const;
  // True when a target is a Unix socket of the far side.
  bool HasUnixTarget() const;
  // True when only gx-ssh itself connects to the module's port.
  bool HasRelay() const { return HasListener() || standard_io; }
};

// Returns the options, or the exit status when the help was printed or a mistake reported with a hint.
std::variant<Options, int> ParseOptions(int argc, const char* const* argv);

}  // namespace gxtool

#endif  // GX_SSH_OPTIONS_H
