// Formats everything that gx-ssh prints: pure functions.
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

#include "common/line_pace.h"
#include "gx-ssh/forward.h"
#include "gx-ssh/options.h"
#include "gx-ssh/traffic.h"

namespace gxtool {

// Builds a one-line JSON object: {"connection":3,"event":"close",...}. The members are not ordered; texts are
// UTF-8.
class JsonObject {
 public:
  JsonObject& Add(std::string_view name, std::string_view text);
  JsonObject& Add(std::string_view name, std::uint64_t number);
  JsonObject& Add(std::string_view name, double number);
  // Adds the members of `other`.
  JsonObject& Add(const JsonObject& other);
  std::string Text() const;

 private:
  JsonObject& Set(std::string_view name, Json::Value value);

  Json::Value members_{Json::objectValue};
};

// Quotes the text as one word of a shell command.
std::string ShellQuoted(std::string_view text);

// The last part of a command's path, escaped.
std::string ProgramName(const std::string& path);

// For example "127.0.0.1:40001", "[::1]:40001", "unix:/run/box".
std::string AddressText(const ListenAddress& address);

// Members: host and port (TCP only), the address as one text, and the target.
JsonObject ForwardObject(const Forward& forward);

// The addresses in the form for standard output, with line ends; at least one address is needed. Empty for
// kNothing. `name` is the far side's host name in the ssh configuration, also for its host key.
std::string Announcement(PrintFormat format, const std::vector<Forward>& forwards, const std::string& name);

// GX_SSH_HOST, GX_SSH_PORT and GX_SSH_ADDR of the first address; if there are more, the same variables for each
// with the suffix _1, _2 and so on. A Unix socket has no value for host and port.
std::vector<std::pair<std::string, std::optional<std::string>>> AddressVariables(
    const std::vector<Forward>& forwards);

// "512 B", "1.5 KiB", "88.0 MiB"
std::string FormatBytes(double bytes);
// "0.3s", "42s", "5m 3s", "2h 5m"
std::string FormatSeconds(double seconds);

// "connection 3 from 127.0.0.1:40001 to web:80 closed after 0.3s: 12 B sent, 1.0 KiB received"
std::string ConnectionLine(const Traffic::Connection& connection);

// A heading, one line per open connection, and the totals.
std::vector<std::string> Table(const std::vector<Traffic::Connection>& open, const Traffic::Totals& totals);

// "2 open, 5 in all; 1.0 KiB sent, 88.0 MiB received"
std::string TotalsLine(const Traffic::Totals& totals);

// "line 97.7 KiB/s, round trip 42 ms, 3.9 KiB under way", without unknown parts; empty when all are unknown.
std::string LineText(const LinePace::View& line);
// The same as members of an object.
JsonObject LineObject(const LinePace::View& line);

// Two lines for the terminal, and LineText as a third one. Rates are in bytes per second.
std::string StatusLines(const std::string& route, const std::string& link_state, const Traffic::Totals& totals,
                        double sent_rate, double received_rate, const LinePace::View& line);

}  // namespace gxtool

#endif  // GX_SSH_REPORT_H
