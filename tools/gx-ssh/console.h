// Everything that gx-ssh says to a person: one line each on standard error, behind "gx-ssh: ".
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

// Where the program's log lines go. It can keep a status under them that is rewritten in place, while this
// program is in the foreground of the terminal and what was said is read. A reader that stalls holds nothing
// up: what it does not take in time is dropped, and a line tells how much that was. Threads: any.
class Console final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  Console();

  // Makes spdlog's default logger write here. With `quiet` only errors are said; `verbosity` counts -v: 1 adds
  // connections and the module's warnings, 2 the module's news, 3 its trace.
  static std::shared_ptr<Console> SetUp(bool quiet, int verbosity);

  // Shows `lines` (with line ends between them) below what was said last, each cut to the
  // width of the terminal; the empty text takes them away, and waits a moment for it, so that others may write
  // there.
  void SetStatus(const std::string& lines);

  // A shell has used the terminal meanwhile: the status is not where it was.
  void ForgetStatus();

  // The beginning of a line of news that has not ended yet, such as a prompt. When the line grows and when it
  // is logged, only the rest follows, unless something else was said in between.
  void ShowUnfinished(const std::string& text);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  void Say(std::string_view text);  // on a line of its own, or as the rest of the unfinished one
  void Draw();
  void Wipe();
  void SendOut();  // queues what the three above have written

  OutputQueue output_;
  std::string out_;         // for output_
  std::string status_;      // as shown
  std::string unfinished_;  // as shown, behind which the cursor stands
};

// Hands the module's log lines to the console.
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
