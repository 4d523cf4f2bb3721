#include "gx-ssh/log_file.h"

#include <fcntl.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string_view>

#include "common/descriptor.h"
#include "common/escape.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/output_queue.h"
#include "gx-ssh/report.h"

namespace gxtool {
namespace {

class LogFile final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  LogFile(Descriptor file, LogFormat format)
      : format_(format), file_(std::move(file)), output_(file_.get(), [this](std::uint64_t lost) {
          return Line(std::chrono::system_clock::now(), "warning",
                      std::to_string(lost) + " messages are missing here: the file did not take them in time");
        }) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    const auto level = spdlog::level::to_string_view(message.level);
    output_.Add(
        Line(message.time, {level.data(), level.size()}, {message.payload.data(), message.payload.size()}));
  }
  void flush_() override {}

 private:
  std::string Line(std::chrono::system_clock::time_point time, std::string_view level,
                   std::string_view text) const {
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    const auto part = std::chrono::duration_cast<std::chrono::milliseconds>(time - seconds).count();
    const std::time_t whole = std::chrono::system_clock::to_time_t(seconds);
    std::tm parts{};
    gmtime_r(&whole, &parts);
    char date[32];
    std::strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%S", &parts);
    const std::string stamp = fmt::format("{}.{:03}Z", date, part);
    if (format_ == LogFormat::kText) return fmt::format("{} {}: {}\n", stamp, level, text);
    return JsonObject().Add("time", stamp).Add("level", level).Add("message", text).Text() + "\n";
  }

  const LogFormat format_;
  const Descriptor file_;
  OutputQueue output_;
};

}  // namespace

void AddLogFile(const std::string& path, LogFormat format) {
  // O_NONBLOCK: do not wait for the reader of a named pipe.
  Descriptor file(open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0600));
  if (!file) throw Failure(kExitUsage, "--log-file " + Escape(path) + ": " + std::strerror(errno));
  spdlog::default_logger()->sinks().push_back(std::make_shared<LogFile>(std::move(file), format));
}

}  // namespace gxtool
