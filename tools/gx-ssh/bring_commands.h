// The commands that gx-ssh sends to a shell to start gx-ssh-peer: one line each, for any POSIX shell and the
// tools that every busybox has.
//
// An answer is framed by two random marks. No command contains them in this form, so an echo is not an answer:
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
  std::string folder;                  // empty: the user's cache, or else a new folder in /tmp
  bool once = false;                   // delete the file as soon as it runs
  std::vector<std::string> arguments;  // for gx-ssh-peer
};

enum class BringAnswer : char {
  kEntered = '0',   // how the shell is reached (pipe, raw, cooked), and the output of uname
  kSeen = '1',      // the probe as it arrived there, in hexadecimal digits
  kProbe = '2',     // the probe, sent back
  kTools = '3',     // no peer found; the tools there: unpacker or "-", then "sha256sum" or "-"
  kPrepared = '4',  // a status kPrepare..., and the failed tool's message
  kPiece = '5',     // "+": written; "-": it cannot be written
  kPlaced = '6',    // what is wrong with the file
  kRuns = '7',      // gx-ssh-peer reads the stream from here on
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
  // The start of an answer; the kind and a blank follow.
  std::string AnswerMark() const { return mark_a_ + mark_b_; }
  std::string AnswerEnd() const { return ' ' + mark_b_ + mark_a_; }

  // For a new shell, which may edit its lines or read ahead. Starts a gx-ssh-peer that is already there, unless
  // a terminal lies in between (answer: kRuns). Otherwise starts a shell that reads byte by byte, so that data
  // can follow a command at once (answer: kEntered).
  std::string Enter() const;
  // The probe follows it. Answers: kSeen, kProbe, and then kRuns or kTools.
  std::string Probe() const;
  // Answer: kPrepared. `fresh`: a new folder in /tmp.
  std::string Prepare(bool fresh) const;
  // Pieces follow it: each is a line with a size and that many bytes, and is answered with kPiece. A line with
  // 0 ends them. Then the answer is kRuns or kPlaced.
  std::string Receive(const StoredPeer& peer, const std::string& unpacker, bool fresh) const;

 private:
  std::string Folder(bool fresh) const;
  std::string Lookup() const;
  std::string Run(const std::string& program) const;

  const BringOrders orders_;
  const std::string mark_a_;
  const std::string mark_b_;
  const std::string name_;  // of the incomplete file
};

// All byte values, then line ends, which a shell ignores: they replace bytes that get lost.
std::string BringProbe();
inline constexpr std::size_t kBringProbeBytes = 256;

}  // namespace gxtool

#endif  // GX_SSH_BRING_COMMANDS_H
