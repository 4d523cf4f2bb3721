#include "object/object_monitor.h"

#include <algorithm>
#include <iomanip>
#include <locale>
#include <sstream>

namespace {

struct Figures {
  std::int64_t id;
  const char* name;
  std::int64_t made;
  std::int64_t alive;
  std::int64_t gone;
};

// Calls `print` for every complete entry, in the order of registration.
template <class Print>
void ForEachMonitoredClass(Print print) {
  const std::int64_t count = std::min(__MonitoringObjectIndex__().load(), kMaxMonitoredClasses);
  for (std::int64_t id = 0; id < count; ++id) {
    const ICObjectMonitor* monitor = __MonitorintObjects__()[id].monitor.load();
    const char* name = __MonitorintObjects__()[id].name.load();
    if (monitor == nullptr || name == nullptr) continue;
    const std::int64_t made = monitor->NewCount();
    const std::int64_t gone = monitor->DeleteCount();
    print(Figures{id, name, made, made - gone, gone});
  }
}

// Uses the classic locale: the host's global locale may group digits.
std::ostringstream PlainStream() {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  return text;
}

}  // namespace

MonitoredClass* __MonitorintObjects__() {
  static MonitoredClass table[kMaxMonitoredClasses];
  return table;
}

std::atomic<std::int64_t>& __MonitoringObjectIndex__() {
  static std::atomic<std::int64_t> index{0};
  return index;
}

void RegisterMonitoredClass(ICObjectMonitor* monitor, const char* name) {
  const std::int64_t place = __MonitoringObjectIndex__().fetch_add(1) + 1;
  if (place > kMaxMonitoredClasses) return;
  __MonitorintObjects__()[place - 1].monitor.store(monitor);
  __MonitorintObjects__()[place - 1].name.store(name);
}

void dump_monitoring_objects(std::string& out) {
  std::ostringstream text = PlainStream();
  text << std::setw(3) << "id" << std::setw(10) << "alive"
       << "|" << std::setw(8) << "new"
       << "|" << std::setw(8) << "delete"
       << "|"
       << " name"
       << "\r\n";
  ForEachMonitoredClass([&](const Figures& figures) {
    text << std::setw(3) << figures.id << (figures.alive > 0 ? " !" : "  ") << std::setw(8) << figures.alive
         << "|" << std::setw(8) << figures.made << "|" << std::setw(8) << figures.gone << "| " << figures.name
         << "\r\n";
  });
  out = text.str();
}

void dump_monitoring_objects2(std::string& out) {
  std::ostringstream text = PlainStream();
  ForEachMonitoredClass([&](const Figures& figures) {
    text << figures.name << "_count: " << figures.made << "\r\n"
         << figures.name << "_alive: " << figures.alive << "\r\n";
  });
  out = text.str();
}
