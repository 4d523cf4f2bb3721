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
  std::string connect_path;  // of a Unix socket; not empty: carry standard input and output to it, no more
  std::string run;           // a shell command; empty: none
  bool probe = false;        // measure the carrier, no more
  bool background = false;

  std::optional<ListenAddress> listen;  // leads to `target`
  std::vector<Forward> forwards;        // -L
  bool user_only = false;
  bool reconnect = false;
  int reconnect_attempts = 0;  // in a row; 0: no limit

  bool bring = false;  // the carrier leads to a shell
  bool bring_once = false;
  std::string bring_folder;        // over there; empty: the usual one
  std::string peer_folder;         // here: what can be brought
  std::vector<std::string> allow;  // with `bring`, beside our own targets

  bool raw = false;
  bool allow_channel_list = false;
  std::chrono::milliseconds connect_timeout{10'000};
  std::chrono::milliseconds keepalive{15'000};  // 0: none
  int keepalive_count = 3;

  PrintFormat print = PrintFormat::kAddress;  // kNothing where standard output is somebody else's
  std::string name = "gx-ssh";                // of the far side, in ssh's configuration
  bool json = false;
  std::string port_file;
  int ready_fd = -1;                               // gets a line when all is ready; -1: none
  std::optional<std::chrono::milliseconds> stats;  // between lines of statistics
  std::string log_file;
  LogFormat log_format = LogFormat::kText;
  bool quiet = false;
  int verbosity = 0;
  bool show_version = false;

  // What a gx-ssh-peer that we bring has to permit.
  std::vector<std::string> PermittedTargets() const;
  // gx-ssh itself listens, and not the module for everybody.
  bool HasListener() const { return listen || reconnect || user_only || !forwards.empty(); }
  // Where, in the order in which that is told.
  std::vector<Forward> Listeners() const;
  // What the far side is asked for.
  std::vector<std::string> Targets() const;
  // One of them is a Unix socket over there.
  bool HasUnixTarget() const;
  // gx-ssh itself connects to the module's port, and nobody else may.
  bool HasRelay() const { return HasListener() || standard_io; }
};

// Either what was asked for, or the status with which to end: help has been printed, or one line about the
// mistake and a hint.
std::variant<Options, int> ParseOptions(int argc, const char* const* argv);

}  // namespace gxtool

#endif  // GX_SSH_OPTIONS_H
