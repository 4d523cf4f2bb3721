#include "gx-ssh/app.h"

#include <signal.h>
#include <spdlog/spdlog.h>

#include <asio/post.hpp>
#include <chrono>
#include <exception>
#include <utility>

namespace gxtool {

App::App(const Options& options, int output, std::shared_ptr<Console> console, Background* background,
         PassedSockets passed)
    : options_(options),
      standard_output_(output),
      console_(std::move(console)),
      signals_(io_, [this](Signal signal) { OnSignal(signal); }),
      pause_(io_),
      module_log_(options.verbosity),
      reporter_(io_, options, *console_, output, traffic_,
                [this] { return link_ ? link_->line() : LinePace::View{}; }),
      background_(background),
      readiness_(io_, options.ready_fd),
      link_policy_(options.reconnect, options.reconnect_attempts),
      passed_(std::move(passed)) {}

int App::Run() {
  try {
    Start();
    io_.run();
  } catch (const Failure& failure) {
    Fail(failure);
  } catch (const std::exception& error) {
    Fail(Failure(kExitLinkLost, error.what()));
  }
  readiness_.OnStopping();
  CleanUp();
  reporter_.OnExit(status_, reason_);
  return status_;
}

void App::Start() {
  if (options_.standard_io || !options_.run.empty()) standard_input_ = TakeStandardInput();
  module_.emplace(options_.module_path, module_log_);
  for (const Forward& forward : options_.Listeners()) {
    const Listener& listener =
        listeners_.emplace_back(io_, forward, options_.user_only, passed_.Take(forward.at));
    if (!listener.IsOpenToOthers()) continue;
    spdlog::warn("other computers can reach {}, and so the target behind it",
                 AddressText(listener.forward().at));
  }
  passed_.ExpectAllTaken();
  StartLink();
}

void App::CleanUp() {
  port_file_.reset();
  listeners_.clear();
  standard_io_.reset();
  command_.reset();
  EndLink();
}

void App::Finish(int status, const std::string& reason) {
  if (std::exchange(finished_, true)) return;
  status_ = status;
  reason_ = reason;
  io_.stop();
}

void App::Fail(const Failure& failure) {
  spdlog::error("{}", failure.what());
  Finish(options_.run.empty() ? failure.status() : kExitTunnel, failure.what());
}

void App::OnSignal(Signal signal) {
  switch (signal.number) {
    case SIGCHLD:
      return OnChildEnded();
    case SIGTSTP:
      return OnSuspend(signal);
    case SIGCONT:
      return OnContinued();
    case SIGUSR1:
      return reporter_.PrintTable();
    default:
      return OnStopSignal(signal);
  }
}

void App::OnStopSignal(Signal signal) {
  if (command_) return command_->OnStopSignal(signal);
  Finish(options_.run.empty() ? kExitOk : kExitTunnel, "stopped");
}

// A key on the terminal has reached the whole group, unless another program had the terminal: then that
// program's keeper has sent this signal, and the rest of the job is stopped here. A signal from any other
// process stops this program alone, with its child processes.
void App::OnSuspend(Signal signal) {
  console_->SetStatus({});
  const bool for_the_job = terminal_.IsLentTo(signal.sender);
  if (!signal.typed && !for_the_job) {
    if (link_) link_->Suspend();
    if (command_) command_->Suspend();
  }
  signals_.Suspend(!for_the_job);
  OnContinued();
}

// A shell has used the terminal meanwhile.
void App::OnContinued() {
  console_->ForgetStatus();
  terminal_.OnContinued();
  if (link_) link_->OnContinued();
  if (command_) command_->Continue();
}

void App::OnChildEnded() {
  if (const auto status = command_ ? command_->Poll() : std::nullopt) {
    return Finish(Child::ExitStatus(*status), "the command has ended");
  }
  if (link_) link_->OnChildEnded();
}

void App::StartLink() {
  reporter_.OnLink("starting", {});
  link_ = std::make_unique<Link>(io_, options_, *module_, *console_, terminal_, *this);
}

void App::EndLink() {
  TellChanges();
  for (const Traffic::Connection& closed : traffic_.CloseAll()) reporter_.OnConnection({false, closed});
  link_.reset();
  TellChanges();
}

// A shell has answered, so the carrier asks for no more passwords.
void App::OnBringing(const StoredPeer& peer, std::size_t sent, std::size_t total) {
  terminal_.TakeBack();
  reporter_.OnBringing(peer.architecture, sent, total);
}

void App::OnLinkUp(const std::string& address, std::uint16_t port) {
  terminal_.TakeBack();
  reporter_.OnLink("up", {});
  readiness_.OnStatus("the link is up");
  link_policy_.OnUp(LinkPolicy::Clock::now());
  if (options_.standard_io) return StartStandardIo(address, port);
  std::vector<Forward> forwards;
  for (Listener& listener : listeners_) {
    listener.Open(address, port, link_->entrance());
    forwards.push_back(listener.forward());
  }
  if (forwards.empty()) forwards.push_back({{"", address, port}, options_.target});
  if (announced_.empty()) return Announce(std::move(forwards));
  spdlog::info("the link is up again");
  if (command_) command_->Continue();
}

void App::OnLinkDown(const Failure& why, bool in_order) {
  // A key or signal to the whole group may have ended the far side as well: handle it first.
  signals_.HandOn();
  // The key may have reached only the carrier, whose keeper still has to report it.
  if (!command_ && link_->Interrupted()) OnStopSignal({SIGINT, true, 0});
  if (finished_) return;
  terminal_.TakeBack();
  readiness_.OnStatus(why.what());
  reporter_.OnLink(in_order ? "ended" : "lost", why.what());
  if (standard_io_ && in_order) return standard_io_->EndAfter(traffic_.totals().received, why.what());
  for (Listener& listener : listeners_) listener.Close();
  EndLink();
  const auto pause = link_policy_.OnDown(why.status(), LinkPolicy::Clock::now());
  if (!pause) return Fail(why);
  spdlog::warn("{}; next try in {:.1f}s", why.what(), std::chrono::duration<double>(*pause).count());
  pause_.expires_after(*pause);
  pause_.async_wait([this](asio::error_code error) {
    if (!error) StartLink();
  });
}

void App::OnRoom() {
  for (Listener& listener : listeners_) listener.Continue();
}

void App::OnInputDelivered() {
  if (standard_io_) standard_io_->OnInputDelivered();
}

// With a single target, a refused first connection means that all further ones fail, too. So end here.
void App::OnRefused(const std::string& why) {
  if (standard_io_) return standard_io_->OnRefused(why);
  if (command_ && announced_.size() == 1 && traffic_.totals().connections == 1) {
    Fail(Failure(kExitLinkLost, "the far side cannot open " + announced_.front().target + ": " + why));
  }
}

void App::OnReset() {
  if (standard_io_) standard_io_->OnReset();
}

void App::OnFrame(const gxmod::FrameHeader& header, bool sent) {
  const auto change = traffic_.Count(header, sent);
  // Waking the main thread would cost more than all other work for a short connection.
  if (!change || !reporter_.TellsConnections()) return;
  const std::lock_guard lock(changes_mutex_);
  if (changes_.empty()) asio::post(io_, [this] { TellChanges(); });
  changes_.push_back(*change);
}

void App::TellChanges() {
  std::vector<Traffic::Change> changes;
  {
    const std::lock_guard lock(changes_mutex_);
    changes.swap(changes_);
  }
  for (const Traffic::Change& change : changes) reporter_.OnConnection(change);
}

void App::Announce(std::vector<Forward> forwards) {
  announced_ = std::move(forwards);
  std::string lines;
  for (const Forward& forward : announced_) lines += AddressText(forward.at) + "\n";
  if (!options_.port_file.empty()) port_file_.emplace(options_.port_file, lines);
  reporter_.OnListening(announced_);
  TellReady(AddressText(announced_.front().at));
  if (options_.run.empty()) return;
  command_.emplace(io_, terminal_, options_.run, standard_input_.get(), standard_output_,
                   AddressVariables(announced_));
}

void App::TellReady(const std::string& line) {
  readiness_.OnReady(line);
  if (background_ == nullptr) return;
  reporter_.Flush();
  terminal_.Leave();
  if (!background_->Detach(standard_output_)) Finish(kExitOk, "the launching process is gone");
}

void App::StartStandardIo(const std::string& address, std::uint16_t port) {
  const auto ended = [this](const std::string& problem) {
    if (problem.empty()) return Finish(kExitOk, "the connection has ended");
    Fail(Failure(kExitLinkLost, "the connection to " + options_.target + " ended: " + problem));
  };
  standard_io_.emplace(io_, standard_input_.get(), standard_output_, ConnectTo(address, port),
                       link_->entrance()->Expect({"", options_.target}), ended);
  TellReady("ready");
}

}  // namespace gxtool
