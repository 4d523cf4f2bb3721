#include "gx-ssh/readiness.h"

#include <fcntl.h>
#include <poll.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#ifdef GX_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace gxtool {
namespace {

#ifdef GX_SYSTEMD
void Notify(const std::string& state) { sd_notify(0, state.c_str()); }

std::chrono::microseconds WatchdogTime() {
  std::uint64_t time = 0;
  return std::chrono::microseconds(sd_watchdog_enabled(0, &time) > 0 ? time : 0);
}
#else
void Notify(const std::string&) {}

std::chrono::microseconds WatchdogTime() { return std::chrono::microseconds(0); }
#endif

// A pipe with room takes a line of this size without blocking.
bool WriteLine(int fd, const std::string& line) {
  pollfd ready{fd, POLLOUT, 0};
  if (poll(&ready, 1, 0) == 0) errno = EAGAIN;
  return (ready.revents & POLLOUT) != 0 && write(fd, line.data(), line.size()) >= 0;
}

}  // namespace

bool Readiness::KnowsServiceManager() {
#ifdef GX_SYSTEMD
  return true;
#else
  return false;
#endif
}

Readiness::Readiness(asio::io_context& io, int descriptor)
    : descriptor_(descriptor), timer_(io), interval_(WatchdogTime() / 2) {
  if (descriptor >= 0) fcntl(descriptor, F_SETFD, FD_CLOEXEC);
  if (interval_.count() > 0) ShowLife();
}

void Readiness::OnReady(const std::string& line) {
  Notify("READY=1");
  if (!descriptor_) return;
  if (!WriteLine(descriptor_.get(), line + "\n")) spdlog::warn("--ready-fd: {}", std::strerror(errno));
  descriptor_.Reset();
}

void Readiness::OnStatus(const std::string& line) { Notify("STATUS=" + line); }

void Readiness::OnStopping() { Notify("STOPPING=1"); }

void Readiness::ShowLife() {
  Notify("WATCHDOG=1");
  timer_.expires_after(interval_);
  timer_.async_wait([this](asio::error_code error) {
    if (!error) ShowLife();
  });
}

}  // namespace gxtool
