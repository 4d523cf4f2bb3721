#include "processes.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "failure.h"

namespace gxbench {
namespace {

constexpr int kMostReadings = 1'000;  // each takes about a millisecond

struct Process {
  pid_t pid = 0;
  pid_t parent = 0;
  double cpu_ticks = 0;
};

// Returns false when the process has ended meanwhile.
bool ReadProcess(pid_t pid, Process& out) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  if (!std::getline(file, text)) return false;
  // The name is in parentheses and may contain any character.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string state, skipped;
  fields >> state >> out.parent;
  for (int field = 5; field < 14; ++field) fields >> skipped;
  double user = 0, system = 0, children_user = 0, children_system = 0;
  fields >> user >> system >> children_user >> children_system;
  out.pid = pid;
  out.cpu_ticks = user + system + children_user + children_system;
  return !fields.fail();
}

std::vector<Process> AllProcesses() {
  std::vector<Process> all;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    pid_t pid = 0;
    Process process;
    const auto end = name.data() + name.size();
    if (std::from_chars(name.data(), end, pid).ptr == end && ReadProcess(pid, process)) all.push_back(process);
  }
  return all;
}

std::vector<Process> WithDescendants(const std::vector<pid_t>& roots) {
  std::vector<Process> rest = AllProcesses();
  std::set<pid_t> family(roots.begin(), roots.end());
  std::vector<Process> found;
  for (std::size_t before = 1; before != found.size();) {
    before = found.size();
    for (const Process& process : rest) {
      if (!family.contains(process.pid) && !family.contains(process.parent)) continue;
      family.insert(process.pid);
      found.push_back(process);
    }
    std::erase_if(rest, [&](const Process& process) { return family.contains(process.pid); });
    if (found.empty()) break;
  }
  for (const pid_t root : roots) {
    if (std::ranges::none_of(found, [&](const Process& process) { return process.pid == root; })) {
      throw Failure("no process " + std::to_string(root));
    }
  }
  return found;
}

}  // namespace

// When a process ends during a reading, its time may be missing, or count twice, as its parent's, too. So of
// three readings in a row that find the same processes the middle one counts.
double Processes::CpuSeconds() const {
  if (none()) return 0;
  double ticks = 0;
  std::set<pid_t> before;
  for (int reading = 0, same = 0; reading < kMostReadings; ++reading) {
    double sum = 0;
    std::set<pid_t> found;
    for (const Process& process : WithDescendants(roots_)) {
      sum += process.cpu_ticks;
      found.insert(process.pid);
    }
    same = found == before ? same + 1 : 1;
    if (same == 3) return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
    ticks = sum;
    before = std::move(found);
  }
  throw Failure("the tunnel's processes keep changing");
}

Memory Processes::UsedMemory() const {
  Memory sum;
  for (const Process& process : WithDescendants(roots_)) {
    std::ifstream file("/proc/" + std::to_string(process.pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
      std::istringstream fields(line);
      std::string name;
      double kib = 0;
      fields >> name >> kib;
      if (name == "Rss:") sum.rss_mb += kib * 1024 / 1e6;
      if (name == "Pss:") sum.pss_mb += kib * 1024 / 1e6;
    }
  }
  return sum;
}

}  // namespace gxbench
