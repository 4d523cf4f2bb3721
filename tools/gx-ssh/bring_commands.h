// What gx-ssh says to a shell to get gx-ssh-peer running behind it: one line each, for any POSIX shell and the
// small tools that every busybox has.
//
// An answer is framed by two random marks that no line of ours contains as they are, so an echo is none:
//
//     <mark a><mark b><kind> <text> <mark b><mark a>
#ifndef GX_SSH_BRING_COMMANDS_H
#define GX_SSH_BRING_COMMANDS_H

#include <cstddef>
#include <string>
#include <vector>

#include "gx-ssh/peer_store.h"

namespace gxtool {

struct BringOrders {
  std::vector<StoredPeer> peers;
  std::string folder;                  // empty: the user's cache, or else one of its own in /tmp
  bool once = false;                   // the file goes as soon as it runs
  std::vector<std::string> arguments;  // for gx-ssh-peer
};

enum class BringAnswer : char {
  kEntered = '0',   // how the shell is reached (pipe, raw, cooked) and what uname says
  kSeen = '1',      // the probe, as it arrived there, in hexadecimal digits
  kProbe = '2',     // the probe, as it is sent back
  kTools = '3',     // there is no peer; which tools there are: unpacker or "-", then "sha256sum" or "-"
  kPrepared = '4',  // a status of kPrepare..., and the words of the tool that failed
  kPiece = '5',     // "+": goes on; "-": it cannot be written
  kPlaced = '6',    // what is wrong with the file, and how
  kRuns = '7',      // gx-ssh-peer has the stream from here on
};

inline constexpr int kPrepareNoFolder = 10;
inline constexpr int kPrepareForeignFolder = 11;
inline constexpr int kPrepareNotWritable = 12;
inline constexpr int kPrepareNotExecutable = 13;

class BringCommands {
 public:
  // `token`: 48 random hexadecimal digits.
  BringCommands(BringOrders orders, const std::string& token);

  const BringOrders& orders() const { return orders_; }
  // Behind it stand the kind and a blank.
  std::string AnswerMark() const { return mark_a_ + mark_b_; }
  std::string AnswerEnd() const { return ' ' + mark_b_ + mark_a_; }

  // For a fresh shell, which may edit its lines or read ahead. Where a peer is there already it runs, unless a
  // terminal lies in between (kRuns). Otherwise a shell takes over that reads byte by byte, so that data may
  // follow a line at once (kEntered).
  std::string Enter() const;
  // Followed by the probe: kSeen, kProbe, and then either kRuns or kTools.
  std::string Probe() const;
  // kPrepared. `fresh`: a new folder in /tmp.
  std::string Prepare(bool fresh) const;
  // Followed by pieces: a line with a number and so many bytes, each answered with kPiece, and a last line with
  // 0. Then kRuns or kPlaced.
  std::string Receive(const StoredPeer& peer, const std::string& unpacker, bool fresh) const;

 private:
  std::string Folder(bool fresh) const;
  std::string Lookup() const;
  std::string Run(const std::string& program) const;

  const BringOrders orders_;
  const std::string mark_a_;
  const std::string mark_b_;
  const std::string name_;  // of the file while it is not whole
};

// All byte values. Behind them line ends, which mean nothing to a shell, stand in for bytes that get lost.
std::string BringProbe();
inline constexpr std::size_t kBringProbeBytes = 256;

}  // namespace gxtool

#endif  // GX_SSH_BRING_COMMANDS_H
