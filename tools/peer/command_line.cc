#include "peer/command_line.h"

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>
#include <utility>

#include "common/duration.h"
#include "common/escape.h"
#include "common/option.h"
#include "common/ready_line.h"
#include "peer/confinement.h"
#include "peer/name_query.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

constexpr char kAbout[] =
    "The far side of gx-ssh: takes frames from stdin, opens the connections that they\n"
    "ask for, and answers on stdout. gx-ssh starts it where the targets are in reach:\n\n"
    "  gx-ssh -- ssh -T HOST gx-ssh-peer\n"
    "  gx-ssh -- docker exec -i CONTAINER gx-ssh-peer --allow 127.0.0.1:8080\n";

constexpr char kFooter[] =
    "A host is a name, an IPv4 address of four decimal numbers, or an IPv6 address in\n"
    "brackets. A TIME reads 500ms, 15s or 2m; 0 is no limit.\n\n"
    "Exit status: 0 the stream ended or a stop was asked for, 1 link lost, 2 usage,\n"
    "4 gx-ssh never answered.\n";

// Omits CLI11's notes on types and exclusions, which make the lines too long.
class HelpFormatter : public CLI::Formatter {
 public:
  HelpFormatter() { column_width(27); }
  std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_option_text().empty() ? "" : ' ' + option->get_option_text();
  }
};

void AddLimit(CLI::App& app, const std::string& name, const std::string& help, milliseconds* limit) {
  const std::string preset = limit->count() == 0 ? "" : " [" + FormatDuration(*limit) + "]";
  AddDuration(app, name, help + preset, limit)->take_last();
}

void AddTargets(CLI::App& app, CommandLine* line) {
  PeerOptions* const options = &line->options;
  AddTexts(app, "--allow", "HOST:PORT|unix:PATH",
           "Permit this target; may be repeated. '*' stands for any\n"
           "host or any port [127.0.0.1:22 and [::1]:22]",
           [options, first = true](const std::string& text) mutable {
             if (std::exchange(first, false)) options->allow = AllowList();
             std::string why;
             if (!options->allow.Add(text, &why)) throw BadText(why);
           });
  app.add_flag_callback(
         "--allow-any", [options] { options->allow = AllowList::Any(); }, "Permit every HOST:PORT")
      ->excludes("--allow");
  AddText(app, "--target", "HOST:PORT|unix:PATH",
          "Open this target for every connection; for command=\n"
          "in authorized_keys",
          [options](const std::string& text) { options->target = Parsed(text, ParseDestination); })
      ->take_last()
      ->excludes("--allow")
      ->excludes("--allow-any");
}

void AddLimits(CLI::App& app, CommandLine* line) {
  PeerOptions* const options = &line->options;
  AddLimit(app, "--connect-timeout", "Time limit for a target, and for gx-ssh at the start",
           &options->connect_timeout);
  app.add_option("--max-connections", options->max_connections, "Maximum number of open connections [1000]")
      ->check(CLI::Range(1, 100'000).description(""))
      ->option_text("COUNT");
  AddLimit(app, "--idle-timeout", "End connections that carry nothing for this time", &options->idle_timeout);
  AddLimit(app, "--keepalive", "Ping gx-ssh after it was silent for this time", &options->keepalive);
  app.add_option("--keepalive-count", options->keepalive_count,
                 "Treat the link as lost after this many silent intervals [3]")
      ->check(CLI::Range(1, 1000).description(""))
      ->option_text("COUNT");
}

void AddNameCache(CLI::App& app, NameCacheOptions* options) {
  AddText(app, "--dns-cache", "FILE", "Save the addresses of names, for when name servers fail",
          [options](const std::string& text) {
            if (text.empty()) throw BadText("this takes the name of a file");
            options->file = text;
          })
      ->take_last();
  app.add_option("--dns-max-age", options->max_age, "With more than 200 names, drop those older than this")
      ->option_text("SECONDS");
  app.add_option("--dns-refresh", options->refresh, "Without effect: every new answer is saved")
      ->option_text("SECONDS");
  for (const char* name : {"--dns-max-age", "--dns-refresh"}) app.get_option(name)->needs("--dns-cache");
}

std::string VersionText() {
  return "gx-ssh-peer " GX_VERSION " (protocol " + std::to_string(kProtocolVersion) +
         ")\nconfines: " + AvailableConfinement().ToString() +
         (kAsksNameServers ? "" : "\nnames: localhost, and no other");
}

}  // namespace

CommandLine ParseCommandLine(int argc, const char* const* argv) {
  CommandLine line;
  CLI::App app(kAbout, "gx-ssh-peer");
  app.footer(kFooter);
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_help_flag("-h,--help", "Print this text");
  app.set_version_flag("--version", VersionText, "Print the version and the available confinement");
  AddTargets(app, &line);
  AddLimits(app, &line);
  if (kHasNameCache) AddNameCache(app, &line.name_cache);
  app.add_flag("--raw", line.options.raw, "Frames only: no ready lines, no pings, no goodbye");
  app.add_flag_callback(
      "--no-confine", [&line] { line.confine = false; },
      "Keep the rights that are otherwise dropped at the start");
  // Used by gx-ssh --bring; hidden from the help.
  app.add_flag("--remove-own-file", line.remove_own_file)->group("");
  app.add_flag("--remove-own-folder", line.remove_own_folder)->group("");
  app.add_flag("-q,--quiet", line.quiet, "Print only errors");
  app.add_flag("-v,--verbose", line.verbosity, "Print connections; twice: also the stream");
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    line.text = app.help();
  } catch (const CLI::CallForVersion& version) {
    line.text = std::string(version.what()) + '\n';
  } catch (const CLI::ParseError& error) {
    throw UsageError(Escape(error.what()));
  }
  if (line.options.raw && line.options.allow.HasUnixSockets()) {
    throw UsageError("--raw: the frame format alone knows no Unix sockets, so --allow cannot name any");
  }
  return line;
}

}  // namespace gxtool
