#include "gx-ssh/link.h"

#include <spdlog/spdlog.h>

#include <algorithm>
#include <asio/post.hpp>
#include <chrono>
#include <utility>

#include "common/duration.h"
#include "common/escape.h"
#include "gx-ssh/carrier.h"
#include "gx-ssh/counted.h"
#include "gx-ssh/local_peer.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

const std::string kNotReady = "the far side is not ready: ";
const std::string kLinkLost = "link lost: ";
const Failure kNoUnixTargets(kExitNotReady, kNotReady +
                                                "it does not say that it connects to Unix sockets; does "
                                                "the same release of gx-ssh-peer run there?");
constexpr milliseconds kFarewell{300};   // for queued data and the goodbye
constexpr milliseconds kLastWords{500};  // for the carrier's exit status and error lines

class Target final : public Counted<IControlSshListener> {
 public:
  explicit Target(std::string target) : target_(std::move(target)) {}

  void OnLocalAddress(const char*, std::uint16_t) override {}
  void OnExit() override {}
  const char* GetRemoteAddress() override { return target_.c_str(); }

 private:
  const std::string target_;
};

}  // namespace

Link::Link(asio::io_context& io, const Options& options, ModuleLibrary& module, Console& console,
           Terminal& terminal, Owner& owner)
    : io_(io),
      options_(options),
      module_(module),
      owner_(owner),
      keepalive_timer_(io),
      guest_timer_(io),
      end_timer_(io) {
  // Check from the event loop: the end may be reported on another thread or inside a handler.
  auto check = [this] { CheckFarSide(); };
  auto on_ended = [&io, check = lifetime_.Guard(check)] { asio::post(io, check); };
  if (options.local) {
    far_side_ = std::make_unique<LocalPeer>(options, on_ended);
  } else {
    far_side_ = std::make_unique<Carrier>(io, options.carrier, options.raw, console, terminal, on_ended);
  }
  output_ = far_side_->TakeOutput();
  if (options.raw) {
    asio::post(io_, lifetime_.Guard([this] { RunModule(far_side_->TakeInput(), {}, false); }));
    return;
  }
  options.bring ? StartBring() : StartHandshake(far_side_->TakeInput(), {});
}

Link::~Link() {
  if (stream_) stream_->Finish("gx-ssh has stopped", kFarewell);
  if (plugin_) plugin_->ExitInstance();
  plugin_ = {};
  stream_ = {};
  bring_.reset();
  handshake_.reset();
  output_.Reset();
  far_side_->End();
}

void Link::StartBring() {
  bring_ = std::make_unique<Bring>(
      io_, far_side_->TakeInput(), output_.get(), options_.connect_timeout, MakeBringOrders(options_),
      Bring::Result{[this](Descriptor input, const std::string& received) {
                      bring_.reset();
                      StartHandshake(std::move(input), received);
                    },
                    [this](const std::string& problem) { FailToStart(problem); },
                    [this](const StoredPeer& peer, std::size_t sent, std::size_t total) {
                      owner_.OnBringing(peer, sent, total);
                    }});
}

void Link::StartHandshake(Descriptor input, const std::string& received) {
  handshake_ = std::make_unique<Handshake>(
      io_, std::move(input), received, output_.get(), options_.connect_timeout,
      Handshake::Result{[this](Descriptor ready, const std::string& rest, const Features& features) {
                          if (options_.HasUnixTarget() && !features.unix_targets) return GoDown(kNoUnixTargets);
                          RunModule(std::move(ready), rest, kOwnFeatures.flow_control && features.flow_control);
                        },
                        [this](const std::string& problem) { FailToStart(problem); }});
}

void Link::FailToStart(const std::string& problem) {
  input_ended_ = true;
  Fail(kExitNotReady, kNotReady + problem);
}

void Link::RunModule(Descriptor input, const std::string& received, bool acknowledges) {
  handshake_.reset();
  const StreamSettings settings{options_.raw, options_.allow_channel_list, acknowledges, options_.HasRelay()};
  stream_ =
      CRefObj<PluginStream>(new PluginStream(std::move(input), std::move(output_), received, settings, *this));
  plugin_ = module_.CreatePlugin();
  if (!plugin_) return GoDown(Failure(kExitModule, "the module makes no plugin; -v shows its log"));
  const CRefObj<Target> target(new Target(options_.target));
  plugin_->SetListener(target.get());
  if (plugin_->InitInstance(stream_.get()) != kGXModOk) {
    return GoDown(Failure(kExitModule, "the module does not take the stream; -v shows its log"));
  }
  if (plugin_->Run() != kGXModOk) {
    return GoDown(Failure(kExitListen, "the module cannot open a local port; -v shows its log"));
  }
  if (!options_.raw && options_.keepalive > milliseconds(0)) KeepAlive();
  owner_.OnLinkUp(plugin_->GetLocalAddress(), plugin_->GetLocalPort());
}

void Link::KeepAlive() {
  const milliseconds limit = options_.keepalive * options_.keepalive_count;
  const milliseconds silence = stream_->silence();
  if (silence >= limit) {
    cause_.emplace(kExitLinkLost, kLinkLost + "no sign of life from the far side for " + FormatDuration(limit));
    return GoDown(Summary());
  }
  stream_->Ping();
  keepalive_timer_.expires_after(std::min(options_.keepalive, limit - silence));
  keepalive_timer_.async_wait(lifetime_.Guard([this](asio::error_code error) {
    if (!error) KeepAlive();
  }));
}

void Link::ExpireGuestsAt(Entrance::Clock::time_point time) {
  guest_timer_.expires_at(time);
  guest_timer_.async_wait(lifetime_.Guard([this](asio::error_code error) {
    const auto next = error ? std::nullopt : stream_->entrance()->Expire(Entrance::Clock::now());
    if (next) ExpireGuestsAt(*next);
  }));
}

void Link::Fail(ExitStatus status, const std::string& reason) {
  if (!cause_) cause_.emplace(status, reason);
  BeginEnd();
}

void Link::BeginEnd() {
  if (!std::exchange(ending_, true)) {
    end_timer_.expires_after(kLastWords);
    end_timer_.async_wait(lifetime_.Guard([this](asio::error_code) { GoDown(Summary()); }));
  }
  if (far_side_->Ended() && input_ended_) GoDown(Summary());
}

// The carrier's end is the failure's cause only if its stream stays open: a child process may hold the stream
// open.
void Link::CheckFarSide() {
  if (ending_ || far_side_->Exited()) BeginEnd();
}

void Link::GoDown(const Failure& why) {
  if (std::exchange(down_, true)) return;
  asio::post(io_, lifetime_.Guard([this, why] { owner_.OnLinkDown(why, EndedInOrder()); }));
}

Failure Link::Summary() {
  // A carrier that was killed ends the far side, too, which then says goodbye.
  if (EndedInOrder()) return Failure(kExitLinkLost, "the far side has ended: " + Escape(*goodbye_));
  if (!cause_) {
    cause_ = stream_ ? Failure(kExitLinkLost, kLinkLost + "the carrier has ended")
                     : Failure(kExitNotReady, kNotReady + "the carrier has ended");
  }
  return Failure(cause_->status(), std::string(cause_->what()) + "; " + far_side_->Describe());
}

// The threads of the module and of the stream call the functions from here on.

void Link::OnChannelListDropped() {
  if (std::exchange(channel_list_told_, true)) return;
  spdlog::warn("the far side wants to open ports here; --allow-channel-list lets it");
}

void Link::OnFalseAcknowledgement() { spdlog::warn("the far side acknowledges bytes that it cannot have got"); }

void Link::OnWaiting() {
  asio::post(io_, lifetime_.Guard(
                      [this, time = Entrance::Clock::now() + Entrance::kSilence] { ExpireGuestsAt(time); }));
}

void Link::OnRoom() {
  asio::post(io_, lifetime_.Guard([this] { owner_.OnRoom(); }));
}

// However many of these frames arrive, at most one handler of each kind is queued in the event loop.
void Link::OnInputDelivered(std::uint32_t) {
  if (delivered_waits_.exchange(true)) return;
  asio::post(io_, lifetime_.Guard([this] {
    delivered_waits_ = false;
    owner_.OnInputDelivered();
  }));
}

void Link::OnReset(std::uint32_t, std::string_view why_not_opened) {
  if (!why_not_opened.empty()) return OnRefused(Escape(why_not_opened));
  if (reset_waits_.exchange(true)) return;
  asio::post(io_, lifetime_.Guard([this] {
    reset_waits_ = false;
    owner_.OnReset();
  }));
}

void Link::OnRefused(const std::string& why) {
  if (refusal_came_.exchange(true)) return;
  asio::post(io_, lifetime_.Guard([this, why] { owner_.OnRefused(why); }));
}

void Link::OnGoodbye(const std::string& reason) {
  if (goodbye_came_.exchange(true)) return;
  asio::post(io_, lifetime_.Guard([this, reason] { goodbye_ = reason; }));
}

void Link::OnInputEnd(const std::string& reason) {
  asio::post(io_, lifetime_.Guard([this, reason] {
    input_ended_ = true;
    Fail(kExitLinkLost, kLinkLost + reason);
  }));
}

void Link::OnOutputFailed(const std::string& reason) {
  asio::post(io_, lifetime_.Guard([this, reason] { Fail(kExitLinkLost, kLinkLost + reason); }));
}

}  // namespace gxtool
