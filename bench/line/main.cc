// line: a carrier with a chosen rate and delay. See --help.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "failure.h"
#include "socket.h"

namespace gxbench {
namespace {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using Milliseconds = std::chrono::duration<double, std::milli>;

Clock::duration Span(double ms) { return std::chrono::duration_cast<Clock::duration>(Milliseconds(ms)); }

struct Options {
  double rate = 1e6;
  double delay_ms = 0;
  double jitter_ms = 0;
  std::size_t buffer = 0;
  double stall_every_s = 0;
  double stall_ms = 0;
  std::vector<std::pair<double, double>> changes;
  std::string to;
  std::vector<std::string> command;
};

// The rates and stalls of both directions.
class Weather {
 public:
  explicit Weather(const Options& options) : options_(options) {}

  // Bytes a second.
  double Rate(Time now) const {
    double rate = options_.rate;
    for (const auto& [second, next] : options_.changes) {
      if (now - start_ >= Span(second * 1e3)) rate = next;
    }
    return rate;
  }
  // The end of the current stall; `now` without one.
  Time Opens(Time now) const {
    if (options_.stall_every_s == 0) return now;
    const auto period = Span(options_.stall_every_s * 1e3);
    const auto since = now - start_;
    const Time began = start_ + since / period * period;
    return since >= period ? std::max(now, began + Span(options_.stall_ms)) : now;
  }
  Clock::duration Delay() {
    return Span(options_.delay_ms + options_.jitter_ms * std::uniform_real_distribution<>()(random_));
  }

 private:
  const Options& options_;
  const Time start_ = Clock::now();
  std::minstd_rand random_;
};

// One direction: a buffer that empties at the line's rate, and a delay.
class Direction {
 public:
  Direction(int in, int out, std::size_t buffer, Weather& weather)
      : in_(in), out_(out), buffer_(buffer), weather_(weather) {
    for (const int fd : {in, out}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }

  bool over() const { return out_ < 0; }

  // Moves bytes as far as possible. Returns when to call it again if no descriptor becomes ready.
  Time Step() {
    const Time now = Clock::now();
    if (const Time opens = weather_.Opens(now); opens > now) {
      free_ = std::max(free_, opens);
      return opens;
    }
    Deliver(now);
    Leave(now);
    Read();
    if (ended_ && waiting_.empty() && road_.empty()) End();
    Time next = Time::max();
    if (!road_.empty() && !blocked_) next = road_.front().first;
    if (!waiting_.empty() && !blocked_) next = std::min(next, free_);
    return next;
  }

  void AddTo(std::vector<pollfd>& waits) const {
    if (!ended_ && waiting_.size() < buffer_) waits.push_back({in_, POLLIN, 0});
    if (blocked_ && !over()) waits.push_back({out_, POLLOUT, 0});
  }

 private:
  void Deliver(Time now) {
    blocked_ = false;
    while (!road_.empty() && road_.front().first <= now) {
      std::string& bytes = road_.front().second;
      const ssize_t count = write(out_, bytes.data(), bytes.size());
      if (count < 0) {
        blocked_ = errno == EAGAIN || errno == EINTR;
        if (!blocked_) End();
        return;
      }
      bytes.erase(0, static_cast<std::size_t>(count));
      if (bytes.empty()) road_.pop_front();
    }
  }

  // Sends about a millisecond's bytes at a time.
  void Leave(Time now) {
    const double rate = weather_.Rate(now);
    const std::size_t step = std::max<std::size_t>(1, static_cast<std::size_t>(rate / 1e3));
    while (!waiting_.empty() && free_ <= now && !blocked_) {
      const std::size_t count = std::min(step, waiting_.size());
      free_ += Span(static_cast<double>(count) / rate * 1e3);
      last_ = std::max(last_, free_ + weather_.Delay());
      road_.emplace_back(last_, waiting_.substr(0, count));
      waiting_.erase(0, count);
    }
  }

  void Read() {
    if (ended_ || waiting_.size() >= buffer_) return;
    std::array<char, 64 * 1024> bytes;
    const ssize_t count = read(in_, bytes.data(), std::min(bytes.size(), buffer_ - waiting_.size()));
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      ended_ = true;
      return;
    }
    if (waiting_.empty()) free_ = std::max(free_, Clock::now());
    waiting_.append(bytes.data(), static_cast<std::size_t>(count));
  }

  // The reader is gone, or the input has ended.
  void End() {
    close(out_);
    out_ = -1;
    ended_ = true;
    waiting_.clear();
    road_.clear();
  }

  const int in_;
  int out_;
  const std::size_t buffer_;
  Weather& weather_;
  bool ended_ = false;
  bool blocked_ = false;  // the reader's descriptor is full
  std::string waiting_;
  Time free_{};  // when the line can take the next byte
  Time last_{};  // when the last one arrives; later bytes arrive later
  std::deque<std::pair<Time, std::string>> road_;
};

void Carry(const Options& options, int in, int out, int far_in, int far_out) {
  Weather weather(options);
  const std::size_t buffer = options.buffer != 0 ? options.buffer : 16 * 1024;
  Direction there(in, far_out, buffer, weather);
  Direction back(far_in, out, buffer, weather);
  for (;;) {
    const Time next = std::min(there.Step(), back.Step());
    if (back.over()) return;
    std::vector<pollfd> waits;
    there.AddTo(waits);
    back.AddTo(waits);
    const auto left = std::max<Clock::duration>(next - Clock::now(), Clock::duration::zero());
    const auto whole = std::chrono::duration_cast<std::chrono::seconds>(left);
    const timespec time{whole.count(), (left - whole).count()};
    ppoll(waits.data(), waits.size(), next == Time::max() ? nullptr : &time, nullptr);
  }
}

std::pair<int, int> Start(const std::vector<std::string>& command) {
  std::array<int, 2> there{};
  std::array<int, 2> back{};
  if (pipe2(there.data(), O_CLOEXEC) != 0 || pipe2(back.data(), O_CLOEXEC) != 0) throw Failure("no pipe");
  const pid_t pid = fork();
  if (pid < 0) throw Failure("fork failed");
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    dup2(there[0], 0);
    dup2(back[1], 1);
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    execvp(words[0], words.data());
    std::_Exit(127);
  }
  close(there[0]);
  close(back[1]);
  return {back[0], there[1]};
}

int Main(int argc, char** argv) {
  CLI::App app("Carries standard input and output to a command or a port, at a chosen rate and delay.");
  Options options;
  app.add_option("--rate", options.rate, "Bytes per second in each direction (1e6)")
      ->check(CLI::Range(1.0, 1e9));
  app.add_option("--delay", options.delay_ms, "Milliseconds in each direction");
  app.add_option("--jitter", options.jitter_ms,
                 "Maximum of an additional random delay, in milliseconds; the order stays");
  app.add_option("--buffer", options.buffer, "Bytes that the line buffers in each direction (16384)");
  app.add_option("--stall-every", options.stall_every_s, "Interval of stalls, in seconds");
  app.add_option("--stall", options.stall_ms, "Duration of a stall, in milliseconds");
  app.add_option("--then", options.changes, "SECOND RATE: change the rate at that second");
  app.add_option("--to", options.to, "127.0.0.1:PORT instead of a command");
  app.add_option("command", options.command, "The command at the other end");
  CLI11_PARSE(app, argc, argv);
  signal(SIGPIPE, SIG_IGN);
  if (!options.command.empty()) {
    const auto [far_in, far_out] = Start(options.command);
    Carry(options, 0, 1, far_in, far_out);
  } else {
    const Socket far = Socket::Connect(ParseAddress(options.to));
    Carry(options, 0, 1, dup(far.fd()), dup(far.fd()));
  }
  return 0;
}

}  // namespace
}  // namespace gxbench

int main(int argc, char** argv) {
  try {
    return gxbench::Main(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "line: %s\n", failure.what());
    return 1;
  }
}
