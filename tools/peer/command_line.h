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
  bool remove_own_file = false;    // delete this program's file after the start
  bool remove_own_folder = false;  // and its folder, which holds only that file
  bool quiet = false;
  int verbosity = 0;
  std::string text;  // if not empty: print this text (for --help or --version) and exit
};

// A one-line explanation of what is wrong with the command line.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws UsageError.
CommandLine ParseCommandLine(int argc, const char* const* argv);

}  // namespace gxtool

#endif  // GX_PEER_COMMAND_LINE_H
