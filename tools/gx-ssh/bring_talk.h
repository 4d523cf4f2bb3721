// The conversation with a shell that ends with gx-ssh-peer running in its place.
#ifndef GX_SSH_BRING_TALK_H
#define GX_SSH_BRING_TALK_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "gx-ssh/bring_commands.h"

namespace gxtool {

// Bytes in, bytes out. Strict lockstep: what is sent goes to a shell, or a tool, that is known to wait for it.
// It is told the time and knows no clock.
class BringTalk {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State {
    kTalking,
    kRuns,    // gx-ssh-peer has the stream; rest() came from it
    kFailed,  // problem() tells why
  };
  // The bytes of a peer, compressed or as they are.
  using Load = std::function<std::string(const StoredPeer& peer, bool compressed)>;

  BringTalk(BringCommands commands, Load load);

  // What to send first.
  std::string Start() const { return commands_.Enter(); }
  // Takes what has come; returns what to send. Throws what `load` throws.
  std::string Take(std::string_view bytes, Clock::time_point now);

  State state() const { return state_; }
  // How many answers have come.
  std::size_t answers() const { return answers_; }
  const std::string& rest() const { return received_; }
  const std::string& problem() const { return problem_; }

  // Nothing came for so long, or the stream has ended: the reason to tell.
  std::string Silence(const std::string& duration) const;
  std::string End() const;

  // The one that is being sent; null: none.
  const StoredPeer* peer() const { return peer_; }
  std::size_t sent() const { return sent_; }
  std::size_t total() const { return content_.size(); }

 private:
  enum class Stage { kEntering, kProbing, kPreparing, kSending };

  std::string Answer(BringAnswer kind, const std::string& text, Clock::time_point now);
  std::string OnEntered(const std::string& text);
  std::string OnProbe(const std::string& text);
  std::string OnTools(const std::string& text);
  std::string OnPrepared(const std::string& text);
  std::string OnPlaced(const std::string& text);
  std::string NextPiece(bool writable, Clock::time_point now);
  std::string Fail(const std::string& problem);
  std::string Quoted() const;

  const BringCommands commands_;
  const Load load_;
  const std::string mark_;  // every answer begins with it
  State state_ = State::kTalking;
  Stage stage_ = Stage::kEntering;
  std::size_t answers_ = 0;
  std::string received_;
  std::string noise_;
  std::string problem_;
  const StoredPeer* peer_ = nullptr;
  std::string seen_;
  std::string unpacker_;
  std::string no_cache_;  // why the usual folder is none
  bool fresh_ = false;    // it is to be a folder in /tmp
  std::string content_;
  std::size_t sent_ = 0;
  std::size_t piece_bytes_;
  Clock::time_point piece_sent_;
};

}  // namespace gxtool

#endif  // GX_SSH_BRING_TALK_H
