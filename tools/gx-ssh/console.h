// Messages for people: lines on standard error that start with "gx-ssh: ".
#ifndef GX_SSH_CONSOLE_H
#define GX_SSH_CONSOLE_H

#include <gxmod/module.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "gx-ssh/output_queue.h"

namespace gxtool {

// The sink of the program's log. It can show a status below the messages and rewrite it in place, while this
// program is in the terminal's foreground and its output is read. A stalled reader blocks nothing: what it does
// not take in time is dropped, and a line reports how much. Threads: any.
class Console final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  Console();

  // Makes spdlog's default logger write here. `quiet` shows only errors; `verbosity` counts -v: 1 adds
  // connections and the module's warnings, 2 the module's information, 3 its trace.
  static std::shared_ptr<Console> SetUp(bool quiet, int verbosity);

  // Shows `lines` (separated by line ends) below the last message, each cut to the terminal's width. An empty
  // text removes the status and waits a moment for that, so that others may write there.
  void SetStatus(const std::string& lines);

  // Call after a shell has used the terminal: the status is no longer where it was.
  void ForgetStatus();

  // Shows the beginning of a line that has not ended yet, such as a prompt. When the line grows and when it is
  // logged, only the new part is written, unless another message came in between.
  void ShowUnfinished(const std::string& text);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  void Say(std::string_view text);  // on its own line, or continuing the unfinished one
  void Draw();
  void Wipe();
  void SendOut();  // queues the text from Say, Draw and Wipe

  OutputQueue output_;
  std::string out_;         // text for output_
  std::string status_;      // as shown
  std::string unfinished_;  // as shown; the cursor is at its end
};

// Passes the module's log lines to the console.
class ModuleLog final : public IGXModRuntime {
 public:
  explicit ModuleLog(int verbosity) : verbosity_(verbosity) {}

  void Log(int level, const char* text) override;
  int GetConfig(bool, const char*, const char*, IGXModData**, const char*) override { return 0; }
  int SaveConfig(bool, const char*, const char*, const char*) override { return 0; }
  const char* GetEnv(const char* name) override;

 private:
  const int verbosity_;
};

}  // namespace gxtool

#endif  // GX_SSH_CONSOLE_H
