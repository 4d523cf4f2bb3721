// Restricts the module's port to this program's own connections.
#ifndef GX_SSH_ENTRANCE_H
#define GX_SSH_ENTRANCE_H

#include <gxmod/frames.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "common/frame_reader.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// The module listens on 127.0.0.1, where every user of the computer can connect. So each of the program's own
// connections first sends a secret. The entrance filters the frames between module and far side: it holds a
// connection's frames back until the secret has arrived, and removes the secret. The module writes the same
// target into every Connect frame; the entrance replaces it by the target of the connection's pass.
//
//   a connection is  entered when                          left when
//   waiting          its Connect is written                its first bytes are complete; its Close is written
//   own              they are an expected secret           its Close is written
//   refused          they are not; they take longer than   its Close is written
//                    kSilence; too many others wait
//
// No frame of a waiting or refused connection passes in either direction.
// Threads: the threads that write for the module call Filter and OnSent, one call at a time. One thread uses
// Close and the passes, Close after the module's last call. Any thread may call the rest.
class Entrance final : public std::enable_shared_from_this<Entrance>, FrameReader::Handler {
 public:
  using Clock = std::chrono::steady_clock;
  using Secret = std::array<char, 16>;

  static constexpr std::chrono::seconds kSilence{2};
  // This many connections may wait, in addition to one per open pass. Beyond that the one that has waited
  // longest is refused, so that silent strangers cannot block others.
  static constexpr std::size_t kWaiting = 32;
  // This many connections with a pass may be on their way to the module, whose backlog is 128. When a backlog
  // overflows, the system resets connections that send more than their first packet.
  static constexpr std::size_t kOnTheirWay = 64;

  // Called without a lock held, on the thread that causes the call.
  class Handler {
   public:
    // The connection has presented its pass; its Connect is sent next.
    virtual void OnEntered(std::uint32_t connection, Route route) = 0;
    // This connection of the module has to be closed.
    virtual void OnRefused(std::uint32_t connection) = 0;
    // All input that the pass announced has been sent.
    virtual void OnInputSent(std::uint32_t connection) = 0;
    // Call Expire after kSilence.
    virtual void OnWaiting() = 0;
    // There is room again after HasRoom has returned false.
    virtual void OnRoom() = 0;

   protected:
    ~Handler() = default;
  };

  // Lets one connection enter: it sends the secret first.
  class Pass {
   public:
    Pass() = default;  // for a port without an entrance
    Pass(Pass&&) = default;
    Pass& operator=(Pass&&) = delete;
    // An unused secret becomes invalid; a connection that has entered continues.
    ~Pass();

    explicit operator bool() const { return entrance_ != nullptr; }
    const Secret& secret() const { return secret_; }
    // Announces that the input has `bytes` bytes, without the secret, while the connection stays open for the
    // answer. The far side is told after the last byte. Returns false when it cannot be told.
    bool EndInput(std::uint64_t bytes);

   private:
    friend class Entrance;
    std::shared_ptr<Entrance> entrance_;
    std::uint64_t ticket_ = 0;
    Secret secret_{};
  };

  // `tells_end`: the far side understands the end of the input. `handler` outlives Close.
  Entrance(bool tells_end, Handler& handler) : tells_end_(tells_end), handler_(&handler) {}

  // Whether one more connection may start. After false, wait for OnRoom.
  bool HasRoom();
  // A pass for a connection to the route's target, as written in a Connect frame. Throws std::system_error when
  // the system has no random bytes.
  Pass Expect(Route route);

  // Returns the part of the module's `block` that may be sent; a block may begin and end inside a frame. The
  // result is valid until the next call and as long as `block`.
  std::string_view Filter(std::string_view block);
  // Call when a frame from Filter has been sent, at least its header.
  void OnSent(const gxmod::FrameHeader& header);

  // Whether the module may see this frame from the far side.
  bool Admits(const gxmod::FrameHeader& header) const;

  // Refuses connections that have waited for kSilence. Returns the time of the next refusal; empty when no
  // connection waits.
  std::optional<Clock::time_point> Expire(Clock::time_point now);

  // The handler is not called afterwards.
  void Close() { handler_ = nullptr; }

 private:
  struct Expected {
    std::uint64_t ticket;
    Secret secret;
    Route route;
    std::optional<std::uint64_t> end;  // bytes of input, once announced
  };
  struct Waiting {
    std::uint32_t id;
    Clock::time_point until;
    std::string proof;  // the first bytes
  };
  struct Own {
    std::uint64_t ticket;
    std::optional<std::uint64_t> end;  // bytes of input; empty after the far side was told
    bool connect_sent = false;
    std::uint64_t sent = 0;
  };
  using Guest = std::list<Waiting>::iterator;
  enum class Fate { kPasses, kIsDropped, kIsProof };

  void OnFrame(const gxmod::FrameHeader& header) override;
  void OnPayload(std::string_view piece) override;
  void OnFrameEnd() override {}

  bool IsOwnData(std::string_view block) const;
  Fate Judge(const gxmod::FrameHeader& header);
  void BeginToWait(std::uint32_t id);
  void TakeProof(Guest guest, std::string_view piece);
  // Returns the target if the guest's proof is an expected secret.
  std::optional<std::string> Enter(const Waiting& guest);
  void Refuse(Guest guest);
  Guest FindGuest(std::uint32_t id);
  void PassHeader(const gxmod::FrameHeader& header);
  static bool TakeEnd(Own& own);
  void EndInput(std::uint64_t ticket, std::uint64_t bytes);
  void Forget(std::uint64_t ticket);
  void MakeRoom();
  void CallHandler();

  const bool tells_end_;
  Handler* handler_;

  FrameReader frames_{this};   // frames that the module writes; this and the next three are used only by Filter
  gxmod::FrameHeader frame_;   // the current frame
  Fate fate_ = Fate::kPasses;  // of the current frame's payload
  std::string passed_;

  mutable std::mutex mutex_;  // guards the members below
  std::uint64_t last_ticket_ = 0;
  std::list<Expected> expected_;
  bool room_is_wanted_ = false;
  bool room_is_made_ = false;   // the handler must be called
  std::list<Waiting> waiting_;  // in order of arrival
  bool expiry_is_due_ = false;  // a call of Expire is scheduled
  bool wait_begins_ = false;    // the handler must schedule Expire
  std::unordered_map<std::uint32_t, Own> own_;
  std::unordered_set<std::uint32_t> refused_;
  // The handler must be called for these.
  std::vector<std::uint32_t> to_close_;
  std::vector<std::pair<std::uint32_t, Route>> entered_;
};

}  // namespace gxtool

#endif  // GX_SSH_ENTRANCE_H
