// Counts live objects per class, for whoever looks for a leak. Monitored classes register during static
// initialisation; the table and the counters live as long as the process and are never reset.
#ifndef GX_OBJECT_OBJECT_MONITOR_H
#define GX_OBJECT_OBJECT_MONITOR_H

#include <atomic>
#include <cstdint>
#include <string>

class ICObjectMonitor {
 public:
  virtual std::int64_t NewCount() const = 0;
  virtual std::int64_t DeleteCount() const = 0;
  virtual ~ICObjectMonitor() = default;
};

// The two counters of class T. Held as a member (or base) by T, so that they follow its life.
template <class T>
class OBJECT_MONITOR {
 public:
  OBJECT_MONITOR() { _new.fetch_add(1, std::memory_order_relaxed); }
  OBJECT_MONITOR(const OBJECT_MONITOR&) : OBJECT_MONITOR() {}
  OBJECT_MONITOR& operator=(const OBJECT_MONITOR&) = default;
  ~OBJECT_MONITOR() { _delete.fetch_add(1, std::memory_order_relaxed); }

  inline static std::atomic<std::int64_t> _new{0};
  inline static std::atomic<std::int64_t> _delete{0};
};

inline constexpr std::int64_t kMaxMonitoredClasses = 1024;

struct MonitoredClass {
  std::atomic<ICObjectMonitor*> monitor{nullptr};  // not owned: a static object of the class's source
  std::atomic<const char*> name{nullptr};
};

// The registry: kMaxMonitoredClasses entries, and the number of registrations made so far, which may exceed
// that.
MonitoredClass* __MonitorintObjects__();
std::atomic<std::int64_t>& __MonitoringObjectIndex__();

// Puts a class into the next free entry. Registrations beyond the table are counted and otherwise ignored.
void RegisterMonitoredClass(ICObjectMonitor* monitor, const char* name);

// Registers class T under `name`; one static instance per class.
template <class T>
class ADD_TO_MONITORING_LIST : public ICObjectMonitor {
 public:
  explicit ADD_TO_MONITORING_LIST(const char* name) { RegisterMonitoredClass(this, name); }

  std::int64_t NewCount() const override { return OBJECT_MONITOR<T>::_new.load(std::memory_order_relaxed); }
  std::int64_t DeleteCount() const override {
    return OBJECT_MONITOR<T>::_delete.load(std::memory_order_relaxed);
  }
};

// Both replace the contents of `out`. The figures are a snapshot taken without a lock.
// A table with one line per class; "!" marks a class with live objects.
void dump_monitoring_objects(std::string& out);
// Two lines per class: "<class>_count: <made>" and "<class>_alive: <alive>".
void dump_monitoring_objects2(std::string& out);

// The order of registration fixes the ids in the table. Initialisers of different sources have no order of
// their own, so each class asks for its place where the platform's linker has one to give.
#if defined(__ELF__)
#define GX_INIT_ORDER(place) __attribute__((init_priority(1000 + (place))))
#else
#define GX_INIT_ORDER(place)
#endif

#define GX_MONITOR_CLASS(place, type) \
  GX_INIT_ORDER(place) static ADD_TO_MONITORING_LIST<type> __AddToMonitoringList__##type(#type)

#endif  // GX_OBJECT_OBJECT_MONITOR_H
