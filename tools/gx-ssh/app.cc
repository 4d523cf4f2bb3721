#include "gx-ssh/app.h"

#include <signal.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <asio/ip/address.hpp>
#include <asio/post.hpp>
#include <exception>
#include <utility>

#include "link/duration.h"

namespace gxtool {
namespace {

constexpr std::chrono::seconds kCommandPatience{2};
constexpr std::chrono::milliseconds kAnswerPatience{500};
constexpr std::chrono::milliseconds kSignalGrace{100};
constexpr std::chrono::seconds kStableLink{10};  // after which the next loss is the first one again

bool IsIgnored(int number) {
  struct sigaction current {};
  return sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

bool MayPass(ExitStatus status) {
  return status == kExitOk || status == kExitLinkLost || status == kExitNotReady;
}

}  // namespace

App::App(const Options& options, int output, std::shared_ptr<Console> console)
    : options_(options),
      standard_output_(output),
      console_(std::move(console)),
      signals_(io_, SIGINT, SIGTERM, SIGCHLD),
      link_timer_(io_),
      patience_timer_(io_),
      module_log_(options.verbosity),
      reporter_(io_, options, *console_, output, traffic_) {
  signals_.add(SIGUSR1);
  if (!IsIgnored(SIGHUP)) signals_.add(SIGHUP);  // nohup asks for that
}

int App::Run() {
  try {
    Start();
    io_.run();
  } catch (const Failure& failure) {
    Fail(failure);
  } catch (const std::exception& error) {
    Fail(Failure(kExitLinkLost, error.what()));
  }
  CleanUp();
  reporter_.OnExit(status_, reason_);
  return status_;
}

void App::Start() {
  WaitForSignal();
  if (options_.standard_io || !options_.run.empty()) standard_input_ = TakeStandardInput();
  module_.emplace(options_.module_path, module_log_);
  if (options_.HasListener()) {
    const auto address = options_.listen.value_or(ListenAddress{"", "127.0.0.1", 0});
    listener_.emplace(io_, address, options_.user_only);
  }
  if (options_.listen && options_.listen->unix_path.empty() &&
      !asio::ip::make_address(options_.listen->address).is_loopback()) {
    spdlog::warn("other computers can reach {}, and so the target behind it", AddressText(*options_.listen));
  }
  StartLink();
}

void App::CleanUp() {
  port_file_.reset();
  listener_.reset();
  standard_io_.reset();
  command_.reset();
  link_.reset();
  for (const Traffic::Connection& closed : traffic_.CloseAll()) reporter_.OnConnection({false, closed});
}

void App::Finish(int status, const std::string& reason) {
  status_ = status;
  reason_ = reason;
  io_.stop();
}

void App::Fail(const Failure& failure) {
  spdlog::error("{}", failure.what());
  Finish(options_.run.empty() ? failure.status() : kExitTunnel, failure.what());
}

void App::WaitForSignal() {
  signals_.async_wait([this](asio::error_code error, int number) {
    if (error) return;
    WaitForSignal();
    OnSignal(number);
  });
}

void App::OnSignal(int number) {
  switch (number) {
    case SIGCHLD:
      return OnChildEnded();
    case SIGUSR1:
      return reporter_.PrintTable();
    default:
      return OnStopSignal(number);
  }
}

void App::OnStopSignal(int number) {
  if (!command_) return Finish(options_.run.empty() ? kExitOk : kExitTunnel, "stopped");
  // Ctrl-C has reached the command as well, and what it means there is the command's affair.
  if (number == SIGINT && isatty(STDERR_FILENO)) return;
  command_->Signal(number);
  patience_timer_.expires_after(kCommandPatience);
  patience_timer_.async_wait([this](asio::error_code error) {
    if (!error) command_->Signal(SIGKILL);
  });
}

void App::OnChildEnded() {
  if (const auto status = command_ ? command_->Poll() : std::nullopt) {
    return Finish(Child::ExitStatus(*status), "the command has ended");
  }
  if (link_) link_->OnChildEnded();
}

void App::StartLink() {
  reporter_.OnLink("starting", {});
  link_ = std::make_unique<Link>(io_, options_, *module_, *this);
}

void App::OnLinkUp(const std::string& address, std::uint16_t port) {
  reporter_.OnLink("up", {});
  link_up_since_ = Clock::now();
  if (options_.standard_io) return StartStandardIo(address, port);
  if (listener_) listener_->Open(address, port, link_->entrance());
  if (announced_) return spdlog::info("the link is up again");
  Announce(listener_ ? listener_->address() : ListenAddress{"", address, port});
}

// Ctrl-C reaches the far side, too, whose end may be known here before our own signal is.
void App::OnLinkDown(const Failure& why) {
  if (command_) return TakeLinkDown(why);
  link_timer_.expires_after(kSignalGrace);
  link_timer_.async_wait([this, why](asio::error_code) { TakeLinkDown(why); });
}

void App::TakeLinkDown(const Failure& why) {
  reporter_.OnLink(why.status() == kExitOk ? "ended" : "lost", why.what());
  if (standard_io_ && why.status() == kExitOk) {
    // It has said goodbye behind its last byte, which may still be on its way to standard output.
    patience_timer_.expires_after(kAnswerPatience);
    patience_timer_.async_wait([this, why](asio::error_code) { Fail(Failure(kExitLinkLost, why.what())); });
    return;
  }
  if (listener_) listener_->Close();
  link_.reset();
  for (const Traffic::Connection& closed : traffic_.CloseAll()) reporter_.OnConnection({false, closed});
  if (options_.reconnect && MayPass(why.status())) return Reconnect(why);
  if (why.status() != kExitOk || !options_.run.empty()) return Fail(why);
  spdlog::info("{}", why.what());
  Finish(kExitOk, why.what());
}

void App::OnFrame(const gxmod::FrameHeader& header, bool sent) {
  const auto change = traffic_.Count(header, sent);
  // Waking the main thread costs more than all else that a short connection takes of this program.
  if (change && reporter_.TellsConnections())
    asio::post(io_, [this, change = *change] { reporter_.OnConnection(change); });
}

void App::Reconnect(const Failure& why) {
  if (announced_ && Clock::now() - link_up_since_ > kStableLink) backoff_.Reset();
  if (options_.reconnect_attempts > 0 && backoff_.attempts() >= options_.reconnect_attempts) return Fail(why);
  const std::chrono::milliseconds pause = backoff_.Next();
  spdlog::warn("{}; next try in {:.1f}s", why.what(), std::chrono::duration<double>(pause).count());
  link_timer_.expires_after(pause);
  link_timer_.async_wait([this](asio::error_code error) {
    if (!error) StartLink();
  });
}

void App::Announce(const ListenAddress& address) {
  announced_ = true;
  if (!options_.port_file.empty()) port_file_.emplace(options_.port_file, AddressText(address) + "\n");
  reporter_.OnListening(address);
  if (options_.run.empty()) return;
  Child::Start start{{"/bin/sh", "-c", options_.run}};
  start.input = standard_input_.get();
  start.output = standard_output_;
  start.environment = AddressVariables(address);
  command_ = std::make_unique<Child>(start);
}

void App::StartStandardIo(const std::string& address, std::uint16_t port) {
  const auto ended = [this](bool well) {
    if (well) return Finish(kExitOk, "the connection has ended");
    Fail(Failure(kExitLinkLost, "the far side closed the connection to " + options_.target +
                                    " at once; does it allow it (--allow) and does something listen there?"));
  };
  standard_io_.emplace(io_, standard_input_.get(), standard_output_, ConnectTo(address, port),
                       link_->entrance()->Expect(), ended);
}

}  // namespace gxtool
