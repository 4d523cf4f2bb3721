#include "gx-ssh/report.h"

#include <spdlog/fmt/fmt.h>

#include <array>
#include <filesystem>

#include "common/escape.h"
#include "gx-ssh/module_library.h"

namespace gxtool {
namespace {

// Quotes the command for ssh, which expands percent signs, and then for the shell.
std::string ProxyCommand(const std::string& path) {
  const std::string address = "unix:" + std::filesystem::absolute(path).string();
  std::string command;
  for (const char c : ShellQuoted(ProgramPath()) + " --connect " + ShellQuoted(address)) {
    command.append(c == '%' ? 2 : 1, c);
  }
  return command;
}

std::string SshConfig(const ListenAddress& address, const std::string& name) {
  std::string text = "Host " + name + "\n";
  if (address.unix_path.empty()) {
    text += fmt::format("  HostName {}\n  Port {}\n", address.address, address.port);
  } else {
    text += fmt::format("  ProxyCommand {}\n", ProxyCommand(address.unix_path));
  }
  // The port changes each time, so ssh stores the key under this name.
  return text + fmt::format("  HostKeyAlias {}\n", name);
}

std::string AnnouncedLine(PrintFormat format, const Forward& forward) {
  if (format == PrintFormat::kPort) return std::to_string(forward.at.port);
  return format == PrintFormat::kJson ? ForwardObject(forward).Text() : AddressText(forward.at);
}

}  // namespace

std::string ProgramName(const std::string& path) {
  return Escape(std::filesystem::path(path).filename().string());
}

std::string AddressText(const ListenAddress& address) {
  if (!address.unix_path.empty()) return "unix:" + address.unix_path;
  const bool v6 = address.address.find(':') != std::string::npos;
  return v6 ? fmt::format("[{}]:{}", address.address, address.port)
            : fmt::format("{}:{}", address.address, address.port);
}

JsonObject ForwardObject(const Forward& forward) {
  JsonObject object;
  const ListenAddress& at = forward.at;
  if (at.unix_path.empty()) object.Add("host", at.address).Add("port", std::uint64_t{at.port});
  return object.Add("address", AddressText(at)).Add("target", forward.target);
}

std::string Announcement(PrintFormat format, const std::vector<Forward>& forwards, const std::string& name) {
  switch (format) {
    case PrintFormat::kAddress:
    case PrintFormat::kPort:
    case PrintFormat::kJson: {
      std::string lines;
      for (const Forward& forward : forwards) lines += AnnouncedLine(format, forward) + "\n";
      return lines;
    }
    case PrintFormat::kEnvironment: {
      std::string line;
      for (const auto& [key, value] : AddressVariables(forwards)) {
        if (value) line += fmt::format("{}={} ", key, ShellQuoted(*value));
      }
      line.back() = '\n';
      return line;
    }
    case PrintFormat::kSshConfig:
      return SshConfig(forwards.front().at, name);
    case PrintFormat::kNothing:
      break;
  }
  return {};
}

std::vector<std::pair<std::string, std::optional<std::string>>> AddressVariables(
    const std::vector<Forward>& forwards) {
  std::vector<std::pair<std::string, std::optional<std::string>>> variables;
  const auto add = [&variables](const ListenAddress& at, const std::string& end) {
    const bool has_port = at.unix_path.empty();
    const auto port = has_port ? std::make_optional(std::to_string(at.port)) : std::nullopt;
    variables.emplace_back("GX_SSH_HOST" + end, has_port ? std::make_optional(at.address) : std::nullopt);
    variables.emplace_back("GX_SSH_PORT" + end, port);
    variables.emplace_back("GX_SSH_ADDR" + end, AddressText(at));
  };
  add(forwards.front().at, "");
  for (std::size_t i = 0; forwards.size() > 1 && i < forwards.size(); ++i)
    add(forwards[i].at, fmt::format("_{}", i + 1));
  return variables;
}

std::string ShellQuoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return result + '\'';
}

std::string FormatBytes(double bytes) {
  constexpr std::array<const char*, 5> kUnits{"B", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  // A number that would be rounded to 1024.0 moves to the next unit.
  while (bytes >= 1023.95 && unit + 1 < kUnits.size()) {
    bytes /= 1024;
    ++unit;
  }
  return fmt::format("{:.{}f} {}", bytes, unit == 0 ? 0 : 1, kUnits[unit]);
}

std::string FormatSeconds(double seconds) {
  if (seconds < 10) return fmt::format("{:.1f}s", seconds);
  const auto whole = static_cast<std::uint64_t>(seconds);
  if (whole < 60) return fmt::format("{}s", whole);
  if (whole < 3600) return fmt::format("{}m {}s", whole / 60, whole % 60);
  return fmt::format("{}h {}m", whole / 3600, whole % 3600 / 60);
}

std::string ConnectionLine(const Traffic::Connection& connection) {
  const Route& route = connection.route;
  const std::string from = route.client.empty() ? "" : " from " + Escape(route.client);
  const std::string to = route.target.empty() ? "" : " to " + Escape(route.target);
  return fmt::format("connection {}{}{} closed after {}: {} sent, {} received", connection.id, from, to,
                     FormatSeconds(connection.Seconds()), FormatBytes(static_cast<double>(connection.sent)),
                     FormatBytes(static_cast<double>(connection.received)));
}

std::vector<std::string> Table(const std::vector<Traffic::Connection>& open, const Traffic::Totals& totals) {
  constexpr const char* kRow = "{:>10}  {:>8}  {:>10}  {:>10}";
  const auto row = [&](const std::string& id, const std::string& age, std::uint64_t sent,
                       std::uint64_t received) {
    return fmt::format(kRow, id, age, FormatBytes(static_cast<double>(sent)),
                       FormatBytes(static_cast<double>(received)));
  };
  std::vector<std::string> lines{fmt::format(kRow, "connection", "age", "sent", "received")};
  for (const Traffic::Connection& connection : open) {
    lines.push_back(row(std::to_string(connection.id), FormatSeconds(connection.Seconds()), connection.sent,
                        connection.received));
  }
  lines.push_back(row(fmt::format("all {}", totals.connections), "", totals.sent, totals.received));
  return lines;
}

std::string TotalsLine(const Traffic::Totals& totals) {
  return fmt::format("{} open, {} in all; {} sent, {} received", totals.open, totals.connections,
                     FormatBytes(static_cast<double>(totals.sent)),
                     FormatBytes(static_cast<double>(totals.received)));
}

std::string LineText(const LinePace::View& line) {
  if (line.round_trip_s == 0) return {};
  const std::string rate = line.known ? FormatBytes(line.bytes_per_s) + "/s, " : "";
  return fmt::format("line {}round trip {:.{}f} ms, {} under way", rate, 1e3 * line.round_trip_s,
                     line.round_trip_s < 0.010 ? 2 : 0, FormatBytes(static_cast<double>(line.under_way)));
}

JsonObject LineObject(const LinePace::View& line) {
  JsonObject object;
  if (line.round_trip_s == 0) return object;
  if (line.known) object.Add("line_bytes_per_second", line.bytes_per_s);
  object.Add("line_round_trip_ms", 1e3 * line.round_trip_s);
  return object.Add("line_under_way", std::uint64_t{line.under_way});
}

std::string StatusLines(const std::string& route, const std::string& link_state, const Traffic::Totals& totals,
                        double sent_rate, double received_rate, const LinePace::View& line) {
  const std::string third = LineText(line);
  return fmt::format("{}   {}\n{} open, {} in all   sent {} ({}/s)   received {} ({}/s){}{}", route, link_state,
                     totals.open, totals.connections, FormatBytes(static_cast<double>(totals.sent)),
                     FormatBytes(sent_rate), FormatBytes(static_cast<double>(totals.received)),
                     FormatBytes(received_rate), third.empty() ? "" : "\n", third);
}

JsonObject& JsonObject::Add(std::string_view name, std::string_view text) {
  return Set(name, std::string(text));
}

JsonObject& JsonObject::Add(std::string_view name, std::uint64_t number) {
  return Set(name, Json::UInt64{number});
}

JsonObject& JsonObject::Add(std::string_view name, double number) { return Set(name, number); }

JsonObject& JsonObject::Add(const JsonObject& other) {
  for (const std::string& name : other.members_.getMemberNames()) members_[name] = other.members_[name];
  return *this;
}

std::string JsonObject::Text() const {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  builder["precision"] = 3;
  builder["precisionType"] = "decimal";
  return Json::writeString(builder, members_);
}

JsonObject& JsonObject::Set(std::string_view name, Json::Value value) {
  members_[std::string(name)] = std::move(value);
  return *this;
}

}  // namespace gxtool
