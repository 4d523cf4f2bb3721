#include "gx-ssh/bring.h"

#include <spdlog/fmt/fmt.h>

#include <asio/buffer.hpp>
#include <exception>
#include <random>
#include <utility>

#include "common/duration.h"
#include "gx-ssh/failure.h"

namespace gxtool {
namespace {

// 48 hexadecimal digits that cannot be guessed.
std::string RandomToken() {
  std::random_device random;
  std::string token;
  for (int word = 0; word < 6; ++word) token += fmt::format("{:08x}", random());
  return token;
}

}  // namespace

BringOrders MakeBringOrders(const Options& options) {
  BringOrders orders{FindPeers(options.peer_folder), options.bring_folder, options.bring_once, {}};
  if (orders.peers.empty()) {
    throw Failure(kExitNotReady,
                  "no gx-ssh-peer to bring in " + options.peer_folder +
                      "; the package gx-ssh-peers has them, --peer-dir DIR names another folder");
  }
  for (const std::string& target : options.PermittedTargets()) {
    orders.arguments.insert(orders.arguments.end(), {"--allow", target});
  }
  const Options usual;
  const auto pass_on = [&orders](const char* name, auto value, auto preset, const std::string& text) {
    if (value != preset) orders.arguments.insert(orders.arguments.end(), {name, text});
  };
  pass_on("--connect-timeout", options.connect_timeout, usual.connect_timeout,
          FormatDuration(options.connect_timeout));
  pass_on("--keepalive", options.keepalive, usual.keepalive, FormatDuration(options.keepalive));
  pass_on("--keepalive-count", options.keepalive_count, usual.keepalive_count,
          std::to_string(options.keepalive_count));
  return orders;
}

Bring::Bring(asio::io_context& io, Descriptor input, int output, std::chrono::milliseconds patience,
             BringOrders orders, Result result)
    : input_(io, input.Release()),
      output_(io, Duplicate(output).Release()),
      timer_(io),
      patience_(patience),
      result_(std::move(result)),
      talk_(BringCommands(std::move(orders), RandomToken()), LoadPeer) {
  WaitOn();
  Send(talk_.Start());
  Read();
}

void Bring::Read() {
  input_.async_read_some(asio::buffer(chunk_), lifetime_.Guard([this](asio::error_code error, std::size_t got) {
    if (settled_) return;
    error ? Fail(talk_.End()) : Take({chunk_.data(), got});
  }));
}

void Bring::Take(std::string_view bytes) {
  const std::size_t answers = talk_.answers();
  const std::size_t sent = talk_.sent();
  std::string next;
  try {
    next = talk_.Take(bytes, BringTalk::Clock::now());
  } catch (const std::exception& error) {
    return Fail(std::string("gx-ssh-peer cannot be read here: ") + error.what());
  }
  if (talk_.state() == BringTalk::State::kFailed) return Fail(talk_.problem());
  if (talk_.state() == BringTalk::State::kRuns) {
    settled_ = true;
    // Copy: the callee may destroy this object.
    const auto runs = result_.runs;
    return runs(Descriptor(input_.release()), std::string(talk_.rest()));
  }
  if (talk_.answers() != answers) WaitOn();
  if (talk_.sent() != sent) result_.moved(*talk_.peer(), talk_.sent(), talk_.total());
  Send(next);
  Read();
}

void Bring::Send(const std::string& bytes) {
  unsent_ += bytes;
  if (writing_.empty()) Write();
}

void Bring::Write() {
  if (writing_.empty()) writing_.swap(unsent_);
  if (writing_.empty()) return;
  output_.async_write_some(asio::buffer(writing_),
                           lifetime_.Guard([this](asio::error_code error, std::size_t written) {
                             // When the reader is gone, the input ends as well, and that is reported.
                             if (error || settled_) return;
                             WaitOn();
                             writing_.erase(0, written);
                             Write();
                           }));
}

void Bring::WaitOn() {
  if (patience_.count() == 0) return;
  timer_.expires_after(patience_);
  timer_.async_wait(lifetime_.Guard([this](asio::error_code error) {
    if (!error) Fail(talk_.Silence(FormatDuration(patience_)));
  }));
}

void Bring::Fail(const std::string& problem) {
  if (std::exchange(settled_, true)) return;
  const auto failed = result_.failed;
  failed(problem);
}

}  // namespace gxtool
