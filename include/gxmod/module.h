// The module's entry record, and the interfaces that host and module exchange when the module is loaded.
//
// A host opens the shared library with dlopen and calls gxmod_get_entrypoint. Then it calls the record's init,
// create (any number of times) and, after releasing every object from create, uninit.
#ifndef GXMOD_MODULE_H
#define GXMOD_MODULE_H

#include <cstdint>

#include "gxmod/reference.h"

// Levels of the log lines that the module passes to IGXModRuntime::Log. The module logs at all levels.
enum GXModLogLevel : int {
  kGXModLogInfo = 1,
  kGXModLogWarning = 2,
  kGXModLogError = 4,
  kGXModLogTrace = 8,
};

// Type codes of IGXModData.
enum GXModDataType : int {
  kGXModDataUInt64 = 2,
  kGXModDataText = 4,
};

// A property value that the host owns.
class IGXModData : public virtual IReference {
 public:
  // Returns one of GXModDataType.
  virtual int GetType() const = 0;
  // NUL-terminated; valid while the value is referenced. Called only for a value of type text.
  virtual const char* GetText() const = 0;
  // Called only for a value of type unsigned 64-bit integer.
  virtual std::uint64_t GetUInt64() const = 0;
};

// Services that the host offers to the module. The host implements it and passes it to init. It is not
// reference-counted: it must stay valid until uninit has returned. Threads: called on any thread of the module,
// one call at a time. Log must not call back into the module.
class IGXModRuntime {
 public:
  // Writes one log line; `text` has no line end. `level` is one of GXModLogLevel.
  virtual void Log(int level, const char* text) = 0;
  // Reads a value from the host's configuration. Returns 0 when it did nothing.
  virtual int GetConfig(bool scope, const char* section, const char* key, IGXModData** out,
                        const char* fallback) = 0;
  // Writes a value to the host's configuration. Returns 0 when it did nothing.
  virtual int SaveConfig(bool scope, const char* section, const char* key, const char* value) = 0;
  // Returns null when the variable is not found.
  virtual const char* GetEnv(const char* name) = 0;

 protected:
  // The virtual table has no destructor entry: the module never deletes a runtime.
  ~IGXModRuntime() = default;
};

// The base of every object that the module creates.
class IGXModInterface : public virtual IReference {
 public:
  // Returns true with the named interface in `*out` as a new reference for the caller. Returns false, with
  // `*out` untouched, for an unknown name (letter case matters) or a null argument.
  virtual bool GetInterface(const char* name, void** out) = 0;
  // Reserved. Ignores the value and returns 0.
  virtual int SetProperty(const char* key, IGXModData* value) = 0;
  // Reserved. Returns null.
  virtual IGXModData* GetProperty(const char* key) = 0;
};

// The properties of a creation request. The host implements it; the `params` argument of `create` points to an
// object of exactly this class.
class IGXModCreateParams : public virtual IReference {
 public:
  // Returns null when the property is absent. The result is borrowed.
  virtual IGXModData* GetProperty(const char* key) = 0;
};

// Keys of IGXModCreateParams.
inline constexpr const char* kGXModPropertyVersion = "gx.module.version";  // unsigned 64-bit, packed
inline constexpr const char* kGXModPropertyInterfaceName = "gx.module.interface.name";  // text

// A version packed into 64 bits: major in bits 63-48, minor in bits 47-32, build in bits 31-0.
struct GXModVersion {
  std::uint16_t major_number = 0;  // changes when interfaces become incompatible
  std::uint16_t minor_number = 0;  // grows when something is added
  std::uint32_t build_number = 0;  // grows with each fix
};

// Packs a version into 64 bits.
constexpr std::uint64_t GXModPackVersion(GXModVersion version) {
  return (static_cast<std::uint64_t>(version.major_number) << 48) |
         (static_cast<std::uint64_t>(version.minor_number) << 32) | version.build_number;
}

// Unpacks a version.
constexpr GXModVersion GXModUnpackVersion(std::uint64_t packed) {
  return {static_cast<std::uint16_t>(packed >> 48), static_cast<std::uint16_t>(packed >> 32),
          static_cast<std::uint32_t>(packed)};
}

// The entry record: one static, read-only object, valid while the module is loaded.
struct gxlink_module_t {
  std::uint64_t version;  // packed
  const char* name;       // "gx-control-ssh"

  // Passes the host's services (an IGXModRuntime) to the module. Returns false for null. A later call replaces
  // the runtime.
  bool (*init)(void* runtime);
  // Removes the host's services; the module then logs to standard output. Call it after every object has been
  // released.
  void (*uninit)();
  // Creates one object. `params` is an IGXModCreateParams, borrowed for the call. Returns 1 with the requested
  // interface (an IControlSshPlugin) in `*out`, as a new reference for the caller. Returns 0, with `*out`
  // untouched, when it refuses; the reason is in the log. Thread: any.
  std::uint32_t (*create)(void* params, void** out);

  const char* build_stamp;  // "Nov 17 2025 12:09:42"
  void* reserved[8];        // null
};

// The only symbol that the shared library exports. Never returns null, never fails.
extern "C" const gxlink_module_t* gxmod_get_entrypoint();

// The type of the function that dlsym returns for kGXModEntryPoint.
using gxmod_get_entrypoint_t = const gxlink_module_t* (*)();
// The symbol's name, for dlsym.
inline constexpr const char* kGXModEntryPoint = "gxmod_get_entrypoint";

#endif  // GXMOD_MODULE_H
