// What gx-ssh prints, as text: pure functions.
#ifndef GX_SSH_REPORT_H
#define GX_SSH_REPORT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gx-ssh/options.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// A JSON object in the making: {"event":"close","connection":3,...}
class JsonObject {
 public:
  JsonObject& Add(std::string_view name, std::string_view text);
  JsonObject& Add(std::string_view name, std::uint64_t number);
  JsonObject& Add(std::string_view name, double number);
  // The members of `other` behind ours.
  JsonObject& Add(const JsonObject& other);
  std::string Text() const { return "{" + members_ + "}"; }

 private:
  JsonObject& AddRaw(std::string_view name, const std::string& value);

  std::string members_;
};

// One word of a shell's command line.
std::string ShellQuoted(std::string_view text);

// The last part of a command's path, made harmless.
std::string ProgramName(const std::string& path);

// "127.0.0.1:40001", "[::1]:40001", "unix:/run/box"
std::string AddressText(const ListenAddress& address);

// Host and port (TCP only), and both as one text.
JsonObject AddressObject(const ListenAddress& address);

// What standard output shall tell about the address, with its line end; empty for kNothing. `name` is that of
// the far side in ssh's configuration, also for its key.
std::string Announcement(PrintFormat format, const ListenAddress& address, const std::string& name);

// GX_SSH_HOST, GX_SSH_PORT and GX_SSH_ADDR; the first two have no value for a Unix socket.
std::vector<std::pair<std::string, std::optional<std::string>>> AddressVariables(const ListenAddress& address);

// "512 B", "1.5 KiB", "88.0 MiB"
std::string FormatBytes(double bytes);
// "0.3s", "42s", "5m 3s", "2h 5m"
std::string FormatSeconds(double seconds);

std::string ConnectionLine(const Traffic::Change& change);

// One line for each open connection, with a heading and the totals.
std::vector<std::string> Table(const std::vector<Traffic::Connection>& open, const Traffic::Totals& totals);

// Two lines for the terminal. Rates in bytes per second.
std::string StatusLines(const std::string& route, const std::string& link_state, const Traffic::Totals& totals,
                        double sent_rate, double received_rate);

}  // namespace gxtool

#endif  // GX_SSH_REPORT_H
