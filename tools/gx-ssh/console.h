// Everything that gx-ssh says to a person: one line each on standard error, behind "gx-ssh: ".
#ifndef GX_SSH_CONSOLE_H
#define GX_SSH_CONSOLE_H

#include <gxmod/module.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <memory>
#include <mutex>
#include <string>

namespace gxtool {

// Where the program's log lines go. It can keep a status under them that is rewritten in place.
// Threads: any.
class Console final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  // Makes spdlog's default logger write here. With `quiet` only errors are said; `verbosity` counts -v: 1 adds
  // connections and the module's warnings, 2 the module's news, 3 its trace.
  static std::shared_ptr<Console> SetUp(bool quiet, int verbosity);

  // Shows `lines` (with line ends between them) below what was said last, each cut to the
  // width of the terminal; the empty text takes them away.
  void SetStatus(const std::string& lines);

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override;
  void flush_() override {}

 private:
  void Draw();
  void Wipe();

  std::string status_;
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
