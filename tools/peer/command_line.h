// The options of gx-ssh-peer.
#ifndef GX_PEER_COMMAND_LINE_H
#define GX_PEER_COMMAND_LINE_H

#include <stdexcept>
#include <string>

#include "peer/name_cache.h"
#include "peer/peer.h"

namespace gxtool {

struct CommandLine {
  PeerOptions options;
  NameCacheOptions name_cache;
  bool confine = true;
  bool remove_own_file = false;    // what was started: its file goes, and nobody else will run it
  bool remove_own_folder = false;  // and the folder that held it alone
  bool quiet = false;
  int verbosity = 0;
  std::string text;  // not empty: what --help or --version asked to print, and nothing else is to be done
};

// One line that tells what is wrong with the command line.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws UsageError.
CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace gxtool

#endif  // GX_PEER_COMMAND_LINE_H
