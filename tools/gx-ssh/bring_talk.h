// The dialogue with a shell that ends with gx-ssh-peer running in its place.
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

// Pure logic: received bytes in, bytes to send out. It works in lockstep: it sends only what a shell or tool is
// known to wait for. The caller passes the time.
class BringTalk {
 public:
  using Clock = std::chrono::steady_clock;
  enum class State {
    kTalking,
    kRuns,    // gx-ssh-peer has the stream; rest() came from it
    kFailed,  // see problem()
  };
  // Reads the bytes of a peer, compressed or plain.
  using Load = std::function<std::string(const StoredPeer& peer, bool compressed)>;

  BringTalk(BringCommands commands, Load load);

  // The first bytes to send.
  std::string Start() const { return commands_.Enter(); }
  // Handles received bytes and returns the bytes to send. Throws what `load` throws.
  std::string Take(std::string_view bytes, Clock::time_point now);

  State state() const { return state_; }
  // The number of answers so far.
  std::size_t answers() const { return answers_; }
  // The last kQuoteBytes before the first answer, unescaped.
  const std::string& noise() const { return first_noise_; }
  const std::string& rest() const { return received_; }
  const std::string& problem() const { return problem_; }

  // The reason to report when no byte came for `duration`, or when the stream has ended.
  std::string Silence(const std::string& duration) const;
  std::string End() const;

  // The peer that is being sent; null: none.
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
  const std::string mark_;  // the start of every answer
  State state_ = State::kTalking;
  Stage stage_ = Stage::kEntering;
  std::size_t answers_ = 0;
  std::string received_;
  std::string noise_;  // before the last answer
  std::string first_noise_;
  std::string problem_;
  const StoredPeer* peer_ = nullptr;
  std::string seen_;
  std::string unpacker_;
  std::string no_cache_;  // why the usual folder cannot be used
  bool fresh_ = false;    // use a new folder in /tmp
  std::string content_;
  std::size_t sent_ = 0;
  std::size_t piece_bytes_;
  Clock::time_point piece_sent_;
};

}  // namespace gxtool

#endif  // GX_SSH_BRING_TALK_H
