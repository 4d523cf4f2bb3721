#include "gx-ssh/local_peer.h"

#include <spdlog/spdlog.h>

#include "link/host_port.h"

namespace gxtool {
namespace {

PeerOptions MakeOptions(const std::string& target, bool raw) {
  PeerOptions options;
  options.target = ParseHostPort(target);
  options.raw = raw;
  options.log = [](LogLevel level, const std::string& line) {
    spdlog::log(level == LogLevel::kDebug ? spdlog::level::trace : spdlog::level::debug, "{}", line);
  };
  return options;
}

}  // namespace

LocalPeer::LocalPeer(const std::string& target, bool raw, const std::function<void()>& on_ended)
    : peer_(MakeOptions(target, raw), ends_.second.get(), ends_.second.get()), thread_([this, on_ended] {
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
