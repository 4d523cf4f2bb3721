#include "gx-ssh/local_peer.h"

#include <spdlog/spdlog.h>

#include "common/destination.h"

namespace gxtool {
namespace {

PeerOptions MakeOptions(const Options& host) {
  PeerOptions options;
  options.allow = AllowList::Any();
  std::string ignored;
  for (const std::string& target : host.Targets()) {
    if (NamesUnixSocket(target)) options.allow.Add(target, &ignored);
  }
  options.raw = host.raw;
  options.log = [](LogLevel level, const std::string& line) {
    spdlog::log(level == LogLevel::kDebug ? spdlog::level::trace : spdlog::level::debug, "{}", line);
  };
  return options;
}

}  // namespace

LocalPeer::LocalPeer(const Options& options, const std::function<void()>& on_ended)
    : peer_(MakeOptions(options), ends_.second.get(), ends_.second.get()), thread_([this, on_ended] {
        peer_.Run();
        exited_ = true;
        on_ended();
      }) {}

LocalPeer::~LocalPeer() { End(); }

void LocalPeer::End() {
  if (!thread_.joinable()) return;
  peer_.Stop();
  thread_.join();
}

}  // namespace gxtool
