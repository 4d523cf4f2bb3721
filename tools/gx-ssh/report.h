// What gx-ssh prints, as text: pure functions.
#ifndef GX_SSH_REPORT_H
#define GX_SSH_REPORT_H

#include <json/value.h>
#include <json/writer.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gx-ssh/forward.h"
#include "gx-ssh/options.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// A JSON object in the making, of one line: {"connection":3,"event":"close",...}. The order of members says
// nothing; texts are UTF-8.
class JsonObject {
 public:
  JsonObject& Add(std::string_view name, std::string_view text);
  JsonObject& Add(std::string_view name, std::uint64_t number);
  JsonObject& Add(std::string_view name, double number);
  // The members of `other` as well.
  JsonObject& Add(const JsonObject& other);
  std::string Text() const;

 private:
  JsonObject& Set(std::string_view name, Json::Value value);

  Json::Value members_{Json::objectValue};
};

// One word of a shell's command line.
std::string ShellQuoted(std::string_view text);

// The last part of a command's path, made harmless.
std::string ProgramName(const std::string& path);

// "127.0.0.1:40001", "[::1]:40001", "unix:/run/box"
std::string AddressText(const ListenAddress& address);

// Host and port (TCP only), both as one text, and the target.
JsonObject ForwardObject(const Forward& forward);

// What standard output shall tell about the addresses, of which there is at least one, with its line ends;
// empty for kNothing. `name` is that of the far side in ssh's configuration, also for its key.
std::string Announcement(PrintFormat format, const std::vector<Forward>& forwards, const std::string& name);

// GX_SSH_HOST, GX_SSH_PORT and GX_SSH_ADDR of the first; where there are more, the same with _1, _2 and so on
// at the end for each. Host and port have no value for a Unix socket.
std::vector<std::pair<std::string, std::optional<std::string>>> AddressVariables(
    const std::vector<Forward>& forwards);

// "512 B", "1.5 KiB", "88.0 MiB"
std::string FormatBytes(double bytes);
// "0.3s", "42s", "5m 3s", "2h 5m"
std::string FormatSeconds(double seconds);

// "connection 3 from 127.0.0.1:40001 to web:80 closed after 0.3s: 12 B sent, 1.0 KiB received"
std::string ConnectionLine(const Traffic::Connection& connection);

// One line for each open connection, with a heading and the totals.
std::vector<std::string> Table(const std::vector<Traffic::Connection>& open, const Traffic::Totals& totals);

// "2 open, 5 in all; 1.0 KiB sent, 88.0 MiB received"
std::string TotalsLine(const Traffic::Totals& totals);

// Two lines for the terminal. Rates in bytes per second.
std::string StatusLines(const std::string& route, const std::string& link_state, const Traffic::Totals& totals,
                        double sent_rate, double received_rate);

}  // namespace gxtool

#endif  // GX_SSH_REPORT_H
