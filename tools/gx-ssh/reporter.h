// Reports the state to people and scripts.
#ifndef GX_SSH_REPORTER_H
#define GX_SSH_REPORTER_H

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gx-ssh/console.h"
#include "gx-ssh/options.h"
#include "gx-ssh/output_queue.h"
#include "gx-ssh/report.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// Shows the progress of the upload of gx-ssh-peer: one line, and a status on a terminal. Threads: one.
class BringProgress {
 public:
  // `console` outlives this object.
  BringProgress(const Options& options, Console& console);

  // `sent` of `total` bytes of the gx-ssh-peer for that architecture were sent.
  void OnSent(const std::string& architecture, std::size_t sent, std::size_t total);
  // The upload starts from the beginning.
  void Restart() { told_ = false; }

 private:
  Console& console_;
  const bool live_;
  bool told_ = false;
};

// Prints the address on standard output, events with --json, connections with -v, and a live status on a
// terminal. A slow reader of standard output never blocks it. Threads: the one that runs `io`.
class Reporter {
 public:
  // Returns the measurements of the line to the far side.
  using Line = std::function<LinePace::View()>;

  // All arguments but `line` outlive the reporter; `output` is standard output.
  Reporter(asio::io_context& io, const Options& options, Console& console, int output, const Traffic& traffic,
           Line line);

  void OnListening(const std::vector<Forward>& forwards);
  // `state` is one word: starting, up, lost, ended. `detail` may be empty.
  void OnLink(const std::string& state, const std::string& detail);
  // See BringProgress::OnSent.
  void OnBringing(const std::string& architecture, std::size_t sent, std::size_t total) {
    bring_progress_.OnSent(architecture, sent, total);
  }
  // True when OnConnection prints something. Thread: any.
  bool TellsConnections() const;
  void OnConnection(const Traffic::Change& change);
  // Prints the final message.
  void OnExit(int status, const std::string& reason);

  void PrintTable();

  // Waits until the printed text is written, but only briefly for a stalled reader.
  void Flush() { output_.WaitUntilWritten(std::chrono::milliseconds(300)); }

 private:
  using Clock = std::chrono::steady_clock;

  void PrintOut(const std::string& text, OutputQueue::Kind kind);
  void Tick();
  void AwaitStatistics();
  void ShowStatus(const Traffic::Totals& totals);
  void Emit(const char* event, const JsonObject& details, OutputQueue::Kind kind = OutputQueue::Kind::kNews);
  void EmitStatistics(const Traffic::Totals& totals);

  const Options& options_;
  Console& console_;
  OutputQueue output_;
  const Traffic& traffic_;
  const Line line_;
  const bool live_;  // a status is shown
  asio::steady_timer timer_;
  asio::steady_timer statistics_timer_;
  const std::chrono::milliseconds statistics_time_;  // 0: never
  Traffic::Totals last_totals_;
  std::string route_;
  BringProgress bring_progress_;
  std::string link_state_ = "starting";
  Clock::time_point link_since_ = Clock::now();
};

}  // namespace gxtool

#endif  // GX_SSH_REPORTER_H
