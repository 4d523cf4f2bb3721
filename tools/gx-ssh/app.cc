#include "gx-ssh/app.h"

#include <signal.h>
#include <spdlog/spdlog.h>

#include <cstdio>
#include <utility>

namespace gxtool {
namespace {

bool IsIgnored(int number) {
  struct sigaction current {};
  return sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

}  // namespace

App::App(Options options)
    : options_(std::move(options)), signals_(io_, SIGINT, SIGTERM, SIGCHLD), module_log_(options_.verbosity) {
  if (!IsIgnored(SIGHUP)) signals_.add(SIGHUP);  // nohup has asked for it otherwise
}

int App::Run() {
  WaitForSignal();
  module_.emplace(options_.module_path, module_log_);
  link_ = std::make_unique<Link>(io_, options_, *module_, *this);
  io_.run();
  link_.reset();
  return status_;
}

void App::WaitForSignal() {
  signals_.async_wait([this](asio::error_code error, int number) {
    if (error) return;
    WaitForSignal();
    OnSignal(number);
  });
}

void App::OnSignal(int number) {
  if (number != SIGCHLD) return Stop(kExitOk);
  if (link_) link_->OnChildEnded();
}

void App::Stop(ExitStatus status) {
  status_ = status;
  io_.stop();
}

void App::OnLinkUp(const std::string& address, std::uint16_t port) {
  std::printf("%s:%u\n", address.c_str(), static_cast<unsigned>(port));
  std::fflush(stdout);
}

void App::OnLinkDown(const Failure& why) {
  if (why.status() == kExitOk) {
    spdlog::info("{}", why.what());
  } else {
    spdlog::error("{}", why.what());
  }
  Stop(why.status());
}

}  // namespace gxtool
