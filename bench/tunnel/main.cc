// tunnel: loads a tunnel, checks every byte and prints figures. See --help.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "failure.h"
#include "socket.h"
#include "target.h"
#include "workloads.h"

namespace {

using namespace gxbench;

struct Options {
  std::string workload;
  std::string to;
  std::uint16_t target_port = 0;
  double seconds = 3;
  std::vector<double> edges;
  SocketSettings sockets;
  std::size_t connections = 1;
  std::vector<pid_t> pids;
  bool json = false;
};

void Declare(CLI::App& app, Options& options) {
  std::string workloads = "\n";
  std::vector<std::string> names;
  for (const Workload& each : Workloads()) {
    names.emplace_back(each.name);
    workloads += std::string("  ") + each.name + ": " + each.summary + "\n";
  }
  app.footer("Workloads:" + workloads + "Exits with 1, without figures, when a byte is wrong or missing.");
  app.add_option("workload", options.workload, "The load")->required()->check(CLI::IsMember(names));
  app.add_option("--to", options.to, "ADDRESS:PORT of the tunnel; without it, connect to the target directly");
  app.add_option("--listen-target", options.target_port, "Port of 127.0.0.1 for the tunnel's target");
  app.add_option("--seconds", options.seconds, "Duration of the measurement, 3 by default")
      ->check(CLI::Range(0.01, 86400.0));
  app.add_option("--edges", options.edges,
                 "Seconds, rising up to --seconds: transfers and keystrokes get a figure for each time between "
                 "two of them")
      ->delimiter(',')
      ->expected(2, kMostParts + 1);
  app.add_option("--patience", options.sockets.patience_s,
                 "Seconds without a byte that fail the run, 30 by default")
      ->check(CLI::Range(1, 3600));
  app.add_option("--unsent", options.sockets.unsent_bytes, "Limit of unsent bytes in a socket, for a slow line")
      ->check(CLI::Range(0, 1 << 30));
  app.add_option("--connections", options.connections, "Number of connections of the workload, 1 by default")
      ->check(CLI::Range(0, 5000));
  app.add_option("--pid", options.pids, "Process of the tunnel; its children are measured, too");
  app.add_flag("--json", options.json, "Print one JSON object");
}

// A part needs a duration, and must lie within the transfer: otherwise it has no rate.
void CheckEdges(const Options& options) {
  const std::vector<double>& edges = options.edges;
  if (edges.empty()) return;
  const bool rises = std::ranges::adjacent_find(edges, std::not_fn(std::less())) == edges.end();
  if (!rises || !(edges.front() >= 0 && edges.back() <= options.seconds)) {
    throw Failure("--edges: they must rise from 0 or more to at most --seconds");
  }
}

void Print(const Figures& figures, bool json) {
  std::string text;
  for (const auto& [name, value] : figures) {
    char line[100];
    std::snprintf(line, sizeof line, json ? "\"%s\": %.6g" : "%s %.6g", name.c_str(), value);
    text += (text.empty() ? "" : json ? ", " : "\n") + std::string(line);
  }
  std::cout << (json ? "{" + text + "}" : text) << '\n';
}

// Both ends of each connection are in this process.
void AllowManyDescriptors() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

Figures Run(const Options& options) {
  constexpr std::size_t kSpare = 32;  // connections that still close while new ones arrive
  Target target(options.target_port, options.connections + kSpare);
  Plan plan{target.address(), options.seconds, options.connections, options.edges, Processes(options.pids)};
  if (!options.to.empty()) plan.to = ParseAddress(options.to);
  const auto run = std::ranges::find(Workloads(), options.workload, &Workload::name)->run;
  try {
    return run(plan);
  } catch (const WrongBytes&) {
    throw;
  } catch (const Failure&) {
    // The target's failure is the cause; the connection's is only a consequence.
    if (target.failure().empty()) throw;
    throw Failure("at the target: " + target.failure());
  }
}

}  // namespace

int main(int argc, char** argv) {
  try {
    CLI::App app("Loads a tunnel, checks every byte and prints figures.");
    Options options;
    Declare(app, options);
    CLI11_PARSE(app, argc, argv);
    CheckEdges(options);
    AllowManyDescriptors();
    SetSockets(options.sockets);
    Print(Run(options), options.json);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "tunnel: " << failure.what() << '\n';
    return 1;
  }
}
