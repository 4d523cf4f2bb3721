#include "gx-ssh/options.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <memory>

#include "common/destination.h"
#include "common/escape.h"
#include "common/option.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/module_library.h"
#include "gx-ssh/peer_store.h"
#include "peer/allow_list.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

constexpr const char* kUsage =
    "Usage: gx-ssh [OPTIONS] -- CARRIER [ARG...]\n"
    "       gx-ssh -W [HOST:PORT] [OPTIONS] -- CARRIER [ARG...]\n"
    "       gx-ssh --run 'CMD' [OPTIONS] -- CARRIER [ARG...]\n"
    "       gx-ssh --local [OPTIONS]\n"
    "       gx-ssh --probe [OPTIONS] -- CARRIER [ARG...]\n"
    "       gx-ssh --connect unix:PATH\n";
constexpr const char* kHint = "usage: gx-ssh [OPTIONS] -- CARRIER [ARG...]; gx-ssh --help tells more";
constexpr const char* kDescription =
    "Forwards local TCP connections through the standard input and output of CARRIER, a command\n"
    "that runs gx-ssh-peer on the far side. Prints the local address and runs until it is stopped.";
constexpr const char* kFooter =
    "Durations read 500ms, 15s, 2m.\n"
    "Exit status: 0 stopped in order, 1 link lost, 2 usage, 3 module missing or wrong, 4 far side never "
    "ready,\n"
    "5 cannot listen, 126 or 127 carrier not executable or not found; with --run that of CMD, 255 when the\n"
    "tunnel failed first.";

// CLI11's value for an option without a text. A newline cannot be confused with a real text, and an empty text
// is a mistake.
constexpr const char* kNoValue = "\n";

const std::map<std::string, PrintFormat> kPrintFormats{{"addr", PrintFormat::kAddress},
                                                       {"port", PrintFormat::kPort},
                                                       {"json", PrintFormat::kJson},
                                                       {"env", PrintFormat::kEnvironment},
                                                       {"ssh-config", PrintFormat::kSshConfig},
                                                       {"none", PrintFormat::kNothing}};

std::string Target(const std::string& text) { return ToString(Parsed(text, ParseDestination)); }

// ssh's %h:%p has no brackets around an IPv6 address.
std::string StandardIoTarget(const std::string& text) {
  const std::size_t colon = std::min(text.rfind(':'), text.size());
  const auto v6 = ParseHostPort("[" + text.substr(0, colon) + "]" + text.substr(colon));
  return v6 ? v6->ToString() : Target(text);
}

std::string UnixPath(const std::string& text) {
  constexpr std::string_view kScheme = "unix:";
  if (!text.starts_with(kScheme)) throw BadText("it is unix:PATH");
  if (text.size() == kScheme.size()) throw BadText("a path is missing");
  return text.substr(kScheme.size());
}

// The name becomes a word in the ssh configuration.
std::string Name(const std::string& text) {
  const auto is_plain = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.';
  };
  if (!text.empty() && std::all_of(text.begin(), text.end(), is_plain)) return text;
  throw BadText("letters, digits, '-', '_' and '.' make a name");
}

PrintFormat Print(const std::string& text) {
  const auto found = kPrintFormats.find(text);
  if (found == kPrintFormats.end()) throw BadText("it is addr, port, json, env, ssh-config or none");
  return found->second;
}

LogFormat Format(const std::string& text) {
  if (text == "text") return LogFormat::kText;
  if (text == "json") return LogFormat::kJson;
  throw BadText("it is text or json");
}

int ReadyDescriptor(const std::string& text) {
  int fd = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), fd);
  if (error == std::errc() && end == text.data() + text.size() && fd > STDERR_FILENO && fcntl(fd, F_GETFD) >= 0)
    return fd;
  throw BadText("not an open descriptor above 2");
}

int Attempts(const std::string& text) {
  int attempts = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), attempts);
  if (error != std::errc() || end != text.data() + text.size() || attempts < 1) {
    throw BadText("not a number of attempts");
  }
  return attempts;
}

std::string AllowEntry(const std::string& text) {
  std::string why;
  if (!AllowList().Add(text, &why)) throw BadText(why);
  return text;
}

// The folder becomes part of a shell command line.
std::string BringFolder(const std::string& text) {
  if (text.empty() || text.find('\n') != std::string::npos || text.size() > 500) {
    throw BadText("not the path of a folder");
  }
  return text;
}

class HelpText : public CLI::Formatter {
 public:
  HelpText() { column_width(34); }
  std::string make_usage(const CLI::App*, std::string) const override { return kUsage; }
};

// An option whose text `convert` turns into `value`.
template <class Value, class Convert>
CLI::Option* AddValue(CLI::App& app, const std::string& name, Value& value, Convert convert, const char* type,
                      const char* help) {
  return AddText(app, name, type, help, [&value, convert](const std::string& text) { value = convert(text); });
}

void DeclareModes(CLI::App& app, Options& options) {
  const auto standard_io = [&app, &options](const std::string& text) {
    options.standard_io = true;
    if (text == kNoValue) return;
    if (app.count("--target") > 0) throw CLI::ValidationError("-W HOST:PORT and --target exclude each other");
    options.target = StandardIoTarget(text);
  };
  AddText(app, "-W,--stdio", "[HOST:PORT]",
          "Carry one connection on standard input and output (ProxyCommand of ssh)", standard_io)
      ->expected(0, 1)
      ->default_str(kNoValue);
  app.add_option("--run", options.run, "Run the shell command CMD when the port is open, exit with its status")
      ->option_text("CMD");
  app.add_flag("--probe", options.probe, "Measure round trip and rates of the carrier, and exit");
  app.add_flag("--local", options.local, "Run the far side inside gx-ssh, without a carrier");
  AddValue(app, "--connect", options.connect_path, UnixPath, "unix:PATH",
           "Connect standard input and output to the Unix socket of --listen");
}

void DeclareSystem(CLI::App& app, Options& options) {
  app.add_flag("--background", options.background,
               "Continue in the background when ready, and print the process id");
  AddValue(app, "--ready-fd", options.ready_fd, ReadyDescriptor, "N",
           "Write one line to this descriptor when ready, and close it");
  app.add_option("--log-file", options.log_file, "Append the messages to FILE as well, with the time")
      ->option_text("FILE");
  AddValue(app, "--log-format", options.log_format, Format, "FORMAT",
           "Format of the log file: text, json (text)");
  AddDuration(app, "--stats", "Print the totals at this interval; 0s: never", &options.stats);
}

void DeclareLink(CLI::App& app, Options& options) {
  AddValue(app, "--target", options.target, Target, "HOST:PORT|unix:PATH",
           "Where the far side connects to (127.0.0.1:22)");
  app.add_option("--module", options.module_path, "The module to load (the one built with this program)")
      ->option_text("PATH");
  app.add_flag("--raw", options.raw, "Frames only: no ready lines, no pings, no goodbye");
  AddDuration(app, "--connect-timeout", "Time limit for the far side to be ready (10s); 0s: none",
              &options.connect_timeout);
  AddDuration(app, "--keepalive", "Ping a silent far side at this interval (15s); 0s: never",
              &options.keepalive);
  app.add_option("--keepalive-count", options.keepalive_count,
                 "Treat the link as lost after N silent intervals (3)")
      ->option_text("N")
      ->check(CLI::Range(1, 1000));
  const auto reconnect = [&options](const std::string& text) {
    options.reconnect = true;
    options.reconnect_attempts = text.empty() ? 0 : Attempts(text);
  };
  AddText(app, "--reconnect", "[=N]", "Restart a lost link, at most N times in a row", reconnect)
      ->expected(0, 1);
  app.add_flag("--allow-channel-list", options.allow_channel_list, "Let the far side open further ports here");
}

void DeclareBring(CLI::App& app, Options& options) {
  app.add_flag("--bring", options.bring,
               "The carrier leads to a shell: upload gx-ssh-peer if it is missing, and run it");
  AddValue(app, "--bring-dir", options.bring_folder, BringFolder, "DIR",
           "Folder for it over there (~/.cache/gx-ssh, else in /tmp)");
  app.add_flag("--bring-once", options.bring_once, "Remove it there as soon as it runs");
  AddTexts(app, "--allow", "HOST:PORT", "Let it open this target, too; may be repeated",
           [&options](const std::string& text) { options.allow.push_back(AllowEntry(text)); });
  app.add_option("--peer-dir", options.peer_folder,
                 "Folder with the files to upload (that of the package gx-ssh-peers)")
      ->option_text("DIR");
}

void DeclareOutput(CLI::App& app, Options& options) {
  const auto listen = [](const std::string& text) { return Parsed(text, ParseListen); };
  AddValue(app, "--listen", options.listen, listen, "ADDR:PORT|unix:PATH",
           "Listen at this address (any port of 127.0.0.1)");
  const auto forward = [&app, &options](const std::string& text) {
    if (app.count("--target") > 0 && app.count("--listen") == 0) {
      throw CLI::ValidationError("-L names targets of its own; --target goes with --listen");
    }
    options.forwards.push_back(Parsed(text, ParseForward));
  };
  AddTexts(app, "-L", "[BIND:]PORT:TARGET",
           "Forward this port or path to TARGET, as ssh -L does; may be repeated", forward);
  app.add_flag("--user-only", options.user_only, "Refuse clients of other users");
  AddValue(app, "--print", options.print, Print, "FORMAT",
           "What to print when ready: addr, port, json, env, ssh-config, none (addr)");
  AddValue(app, "--name", options.name, Name, "NAME",
           "Name of the far side for ssh-config and its host key (gx-ssh)");
  app.add_flag("--json", options.json, "Print events on standard output, one JSON object per line");
  app.add_option("--port-file", options.port_file, "Write the addresses to FILE while the ports are open")
      ->option_text("FILE");
  app.add_flag("-q,--quiet", options.quiet, "Print only errors");
  app.add_flag("-v,--verbose", options.verbosity,
               "Print connections; twice or three times: also the module's log");
  app.add_flag("--version", options.show_version, "Print name, version, protocol and the module found");
}

// Checks combinations of options. Returns an empty text when they are valid.
std::string Contradiction(const Options& options) {
  if (!options.connect_path.empty()) {
    const bool more = options.local || options.HasRelay() || !options.run.empty() || !options.carrier.empty();
    return more ? "--connect takes no carrier and goes with no other mode" : "";
  }
  if (options.probe && (options.local || options.raw || options.HasRelay() || !options.run.empty())) {
    return "--probe takes a carrier and goes with no other mode, nor with --raw";
  }
  if (options.background && (options.probe || options.standard_io || !options.run.empty() || options.json)) {
    return "--background leaves standard input and output: --probe, -W, --run and --json do not go with it";
  }
  if (options.local && !options.carrier.empty()) return "--local takes no carrier";
  if (options.bring && (options.local || options.raw)) {
    return "--bring does not go with --local and --raw";
  }
  if (!options.bring && (options.bring_once || !options.bring_folder.empty() || !options.allow.empty())) {
    return "--bring-dir, --bring-once and --allow go with --bring";
  }
  std::string permitted;
  for (const std::string& target : options.PermittedTargets()) permitted += "--allow" + target + "       ";
  if (options.bring && (permitted.size() > 1200 || permitted.find('\n') != std::string::npos)) {
    return "--bring: the targets do not fit into a line for a shell";
  }
  if (!options.local && options.carrier.empty()) return "a carrier is missing: a command behind --, or --local";
  if (options.standard_io && !options.run.empty()) return "-W and --run exclude each other";
  const bool prints = options.json || options.print != PrintFormat::kNothing;
  if (options.standard_io && (options.HasListener() || prints || !options.port_file.empty())) {
    return "-W opens no port: --listen, -L, --reconnect, --user-only, --print, --json and --port-file do not "
           "go with it";
  }
  const std::vector<Forward> listeners = options.Listeners();
  if (options.print == PrintFormat::kSshConfig && !listeners.empty() &&
      listeners.front().at.unix_path.find('\n') != std::string::npos) {
    return "--print ssh-config: a path of two lines is not supported";
  }
  const auto is_unix = [](const Forward& forward) { return !forward.at.unix_path.empty(); };
  if (options.print == PrintFormat::kPort && std::any_of(listeners.begin(), listeners.end(), is_unix)) {
    return "--print port: a Unix socket has none";
  }
  if (options.allow_channel_list && options.HasRelay()) {
    return "--allow-channel-list opens ports that -W, -L, --listen, --reconnect and --user-only keep closed";
  }
  if (options.raw && options.HasUnixTarget()) return "--raw: the frame format alone knows no Unix sockets";
  if (options.quiet && options.verbosity > 0) return "-q and -v exclude each other";
  return {};
}

int Complain(const std::string& mistake) {
  std::fprintf(stderr, "gx-ssh: %s\n%s\n", Escape(mistake, 1000).c_str(), kHint);
  return kExitUsage;
}

}  // namespace

std::vector<Forward> Options::Listeners() const {
  std::vector<Forward> all = forwards;
  const ListenAddress any_port{"", "127.0.0.1", 0};
  if (listen || (forwards.empty() && HasListener()))
    all.insert(all.begin(), {listen.value_or(any_port), target});
  return all;
}

std::vector<std::string> Options::Targets() const {
  std::vector<std::string> targets;
  for (const Forward& forward : Listeners()) targets.push_back(forward.target);
  if (targets.empty()) targets.push_back(target);
  return targets;
}

bool Options::HasUnixTarget() const {
  const std::vector<std::string> targets = Targets();
  return std::any_of(targets.begin(), targets.end(), NamesUnixSocket);
}

std::vector<std::string> Options::PermittedTargets() const {
  std::vector<std::string> targets = Targets();
  targets.insert(targets.begin(), allow.begin(), allow.end());
  return targets;
}

std::variant<Options, int> ParseOptions(int argc, const char* const* argv) {
  Options options;
  options.module_path = DefaultModulePath();
  options.peer_folder = DefaultPeerFolder();
  // The carrier's options are not for gx-ssh, so the command line is split before it is parsed.
  const char* const* end = argv + argc;
  const char* const* divider = std::find(argv, end, std::string_view("--"));
  if (divider != end) options.carrier.assign(divider + 1, end);

  CLI::App app(kDescription, "gx-ssh");
  app.formatter(std::make_shared<HelpText>());
  app.footer(kFooter);
  DeclareModes(app, options);
  DeclareLink(app, options);
  DeclareBring(app, options);
  DeclareSystem(app, options);
  DeclareOutput(app, options);
  try {
    app.parse(static_cast<int>(divider - argv), argv);
    // Standard output is used by the connection, the command or the events.
    const bool taken = options.standard_io || !options.run.empty() || options.json;
    if (taken && app.count("--print") == 0) options.print = PrintFormat::kNothing;
  } catch (const CLI::CallForHelp&) {
    std::fputs(app.help().c_str(), stdout);
    return kExitOk;
  } catch (const CLI::ExtrasError&) {
    return Complain("unknown argument \"" + app.remaining().front() + "\"; a carrier stands behind --");
  } catch (const CLI::ParseError& error) {
    return Complain(error.what());
  }
  if (options.show_version) return options;
  const std::string contradiction = Contradiction(options);
  if (!contradiction.empty()) return Complain(contradiction);
  return options;
}

}  // namespace gxtool
