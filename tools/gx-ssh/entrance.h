// Who may use the module's port: with an entrance, only the program's own connections.
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
// connections begins with a secret. This stands between the module and the far side, holds the frames of a
// connection back until the secret has come, and takes it out of them. The module knows one target; the Connect
// that goes out names that of the pass.
//
//   a connection is  entered when                          left when
//   waiting          its Connect is written                its first bytes are complete; its Close is written
//   own              they are an expected secret           its Close is written
//   refused          they are not; they take longer than   its Close is written
//                    kSilence; too many others wait
//
// Nothing of a connection that waits or is refused passes, either way.
// Threads: Filter and OnSent on those that write for the module, one call at a time; Close and the passes on
// one thread, Close after the module's last call; everything else on any.
class Entrance final : public std::enable_shared_from_this<Entrance>, FrameReader::Handler {
 public:
  using Clock = std::chrono::steady_clock;
  using Secret = std::array<char, 16>;

  static constexpr std::chrono::seconds kSilence{2};
  // So many wait, beside as many as passes are out. For one more the one that has waited longest is refused, so
  // that strangers who say nothing keep nobody out.
  static constexpr std::size_t kWaiting = 32;
  // So many connections that have a pass may be on their way to the module, whose queue holds 128. When that
  // overflows, the system resets connections as soon as they send more than their first packet.
  static constexpr std::size_t kOnTheirWay = 64;

  // Called without a lock, on the thread that causes the call.
  class Handler {
   public:
    // That connection has shown its pass; its Connect goes out next.
    virtual void OnEntered(std::uint32_t connection, Route route) = 0;
    // That connection of the module's has to be closed.
    virtual void OnRefused(std::uint32_t connection) = 0;
    // All that a pass has promised has gone out.
    virtual void OnInputSent(std::uint32_t connection) = 0;
    // Expire is due in kSilence.
    virtual void OnWaiting() = 0;
    // HasRoom was false, and is true.
    virtual void OnRoom() = 0;

   protected:
    ~Handler() = default;
  };

  // Lets one connection enter, which sends the secret first of all.
  class Pass {
   public:
    Pass() = default;  // for a port without an entrance
    Pass(Pass&&) = default;
    Pass& operator=(Pass&&) = delete;
    // A secret that was not used is worth nothing any more; a connection that has entered goes on.
    ~Pass();

    explicit operator bool() const { return entrance_ != nullptr; }
    const Secret& secret() const { return secret_; }
    // So many bytes come in all, the secret not counted, but the connection stays open for the answer. The far
    // side is told behind the last one. False: it cannot be told.
    bool EndInput(std::uint64_t bytes);

   private:
    friend class Entrance;
    std::shared_ptr<Entrance> entrance_;
    std::uint64_t ticket_ = 0;
    Secret secret_{};
  };

  // `tells_end`: the far side understands the end of the input. `handler` outlives Close.
  Entrance(bool tells_end, Handler& handler) : tells_end_(tells_end), handler_(&handler) {}

  // May one more connection set out? False: wait for OnRoom.
  bool HasRoom();
  // For a connection to the route's target, as a Connect frame carries it. Throws std::system_error when the
  // system has no random bytes.
  Pass Expect(Route route);

  // What of the module's `block`, which may begin and end anywhere in a frame, may go out. Valid until the next
  // call and as long as `block`.
  std::string_view Filter(std::string_view block);
  // A frame that Filter let through has gone out, at least its header.
  void OnSent(const gxmod::FrameHeader& header);

  // May the module see this frame of the far side's?
  bool Admits(const gxmod::FrameHeader& header) const;

  // Refuses whoever has waited for kSilence. Returns when the next one will have; nothing when nobody waits.
  std::optional<Clock::time_point> Expire(Clock::time_point now);

  // The handler is called no more.
  void Close() { handler_ = nullptr; }

 private:
  struct Expected {
    std::uint64_t ticket;
    Secret secret;
    Route route;
    std::optional<std::uint64_t> end;  // of the input, in bytes
  };
  struct Waiting {
    std::uint32_t id;
    Clock::time_point until;
    std::string proof;  // the first bytes
  };
  struct Own {
    std::uint64_t ticket;
    std::optional<std::uint64_t> end;  // nothing once the far side was told
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
  // The target, when the guest's proof is an expected one.
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

  FrameReader frames_{this};   // of what the module writes; it and the next three belong to Filter alone
  gxmod::FrameHeader frame_;   // the one being read
  Fate fate_ = Fate::kPasses;  // of what it still brings
  std::string passed_;

  mutable std::mutex mutex_;  // guards what follows
  std::uint64_t last_ticket_ = 0;
  std::list<Expected> expected_;
  bool room_is_wanted_ = false;
  bool room_is_made_ = false;   // the handler has to be told
  std::list<Waiting> waiting_;  // in the order in which they came
  bool expiry_is_due_ = false;  // Expire will be called
  bool wait_begins_ = false;    // the handler has to be told that it is due
  std::unordered_map<std::uint32_t, Own> own_;
  std::unordered_set<std::uint32_t> refused_;
  // The handler has to be told.
  std::vector<std::uint32_t> to_close_;
  std::vector<std::pair<std::uint32_t, Route>> entered_;
};

}  // namespace gxtool

#endif  // GX_SSH_ENTRANCE_H
