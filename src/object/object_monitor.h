// Counts live objects per class, to find leaks. Monitored classes register during static initialisation; the
// table and the counters exist as long as the process and are never reset.
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

// The two counters of class T. T holds one as a member or base, so that they count its constructions and
// destructions.
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
  std::atomic<ICObjectMonitor*> monitor{nullptr};  // not owned: a static object in the class's source file
  std::atomic<const char*> name{nullptr};
};

// The registry: kMaxMonitoredClasses entries, and the number of registrations so far, which may be larger.
MonitoredClass* __MonitorintObjects__();
std::atomic<std::int64_t>& __MonitoringObjectIndex__();

// Adds a class at the next free entry. Once the table is full, registrations are only counted.
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

// Both functions replace the contents of `out`. The numbers are a snapshot taken without a lock.
// A table with one line per class; "!" marks a class with live objects.
void dump_monitoring_objects(std::string& out);
// Two lines per class: "<class>_count: <objects made>" and "<class>_alive: <live objects>".
void dump_monitoring_objects2(std::string& out);

// The order of registration determines the ids in the table. C++ leaves the order of initialisers in different
// source files open, so each class sets its place where the linker supports that.
#if defined(__ELF__)
#define GX_INIT_ORDER(place) __attribute__((init_priority(1000 + (place))))
#else
#define GX_INIT_ORDER(place)
#endif

#define GX_MONITOR_CLASS(place, type) \
  GX_INIT_ORDER(place) static ADD_TO_MONITORING_LIST<type> __AddToMonitoringList__##type(#type)

#endif  // GX_OBJECT_OBJECT_MONITOR_H
