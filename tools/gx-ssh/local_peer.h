// A far side inside this process, for --local.
#ifndef GX_SSH_LOCAL_PEER_H
#define GX_SSH_LOCAL_PEER_H

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "gx-ssh/far_side.h"
#include "gx-ssh/options.h"
#include "peer/peer.h"

namespace gxtool {

// Runs the far side on its own thread.
class LocalPeer final : public FarSide {
 public:
  // It permits every TCP target, and the Unix sockets that the options name. `on_ended` is called on its thread
  // when it has ended.
  LocalPeer(const Options& options, const std::function<void()>& on_ended);
  ~LocalPeer() override;

  Descriptor TakeInput() override { return std::move(input_); }
  Descriptor TakeOutput() override { return std::move(ends_.first); }
  bool Exited() override { return exited_; }
  bool Killed() override { return false; }
  bool Interrupted() override { return false; }
  bool Ended() override { return exited_; }
  void Suspend() override {}
  void Continue() override {}
  void End() override;
  std::string Describe() override { return "far side inside gx-ssh"; }

 private:
  std::pair<Descriptor, Descriptor> ends_ = MakeSocketPair();  // ours, until it is taken, and the peer's
  Descriptor input_{Duplicate(ends_.first.get())};
  Peer peer_;
  std::atomic<bool> exited_{false};
  std::thread thread_;
};

}  // namespace gxtool

#endif  // GX_SSH_LOCAL_PEER_H
