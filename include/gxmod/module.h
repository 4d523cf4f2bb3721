// The entry record of the module and the interfaces that host and module exchange when the module is loaded.
//
// A host opens the shared library with dlopen, calls gxmod_get_entrypoint, then the record's init, create (any
// number of times) and, after it has released every object that create gave it, uninit.
#ifndef GXMOD_MODULE_H
#define GXMOD_MODULE_H

#include <cstdint>

#include "gxmod/reference.h"

// Levels of the log lines that the module hands to IGXModRuntime::Log. The module filters nothing.
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
  // One of GXModDataType.
  virtual int GetType() const = 0;
  // NUL-terminated; valid while the value is referenced. Asked only of a value of type text.
  virtual const char* GetText() const = 0;
  // Asked only of a value of type unsigned 64-bit integer.
  virtual std::uint64_t GetUInt64() const = 0;
};

// Services that the host offers the module. Implemented by the host and handed to init; not counted: it must
// stay valid until uninit has returned. Threads: called on any thread of the module, one call at a time. Log
// must not call back into the module.
class IGXModRuntime {
 public:
  // Takes one log line, `text` without a line end. `level` is one of GXModLogLevel.
  virtual void Log(int level, const char* text) = 0;
  // Reads a value of the host's configuration. 0: nothing was done.
  virtual int GetConfig(bool scope, const char* section, const char* key, IGXModData** out,
                        const char* fallback) = 0;
  // Writes a value of the host's configuration. 0: nothing was done.
  virtual int SaveConfig(bool scope, const char* section, const char* key, const char* value) = 0;
  // Returns null when nothing was found.
  virtual const char* GetEnv(const char* name) = 0;

 protected:
  // The table has no destructor: the module never deletes a runtime.
  ~IGXModRuntime() = default;
};

// What every object that the module creates can be asked for.
class IGXModInterface : public virtual IReference {
 public:
  // True: `*out` is the named interface, counted for the caller. False: unknown name (letter case counts) or a
  // null argument; `*out` is untouched.
  virtual bool GetInterface(const char* name, void** out) = 0;
  // Reserved. Keeps nothing and returns 0.
  virtual int SetProperty(const char* key, IGXModData* value) = 0;
  // Reserved. Returns null.
  virtual IGXModData* GetProperty(const char* key) = 0;
};

// The properties of a creation request. Implemented by the host; what `create` takes as `params` is a pointer
// to this very class.
class IGXModCreateParams : public virtual IReference {
 public:
  // Null when absent. Not counted for the caller.
  virtual IGXModData* GetProperty(const char* key) = 0;
};

// Keys of IGXModCreateParams.
inline constexpr const char* kGXModPropertyVersion = "gx.module.version";  // unsigned 64-bit, packed
inline constexpr const char* kGXModPropertyInterfaceName = "gx.module.interface.name";  // text

// A version packed into 64 bits: major in bits 63-48, minor in bits 47-32, build in bits 31-0.
struct GXModVersion {
  std::uint16_t major_number = 0;  // of interfaces that fit together
  std::uint16_t minor_number = 0;  // grows with what is added
  std::uint32_t build_number = 0;  // grows with what is mended
};

// From three numbers to one.
constexpr std::uint64_t GXModPackVersion(GXModVersion version) {
  return (static_cast<std::uint64_t>(version.major_number) << 48) |
         (static_cast<std::uint64_t>(version.minor_number) << 32) | version.build_number;
}

// And back.
constexpr GXModVersion GXModUnpackVersion(std::uint64_t packed) {
  return {static_cast<std::uint16_t>(packed >> 48), static_cast<std::uint16_t>(packed >> 32),
          static_cast<std::uint32_t>(packed)};
}

// The entry record: one static, read-only object that lives as long as the module is loaded.
struct gxlink_module_t {
  std::uint64_t version;  // packed
  const char* name;       // "gx-control-ssh"

  // Gives the module its host's services. False for null. May be called again: the new runtime replaces the
  // old.
  bool (*init)(void* runtime);
  // Takes them back; log lines then go to standard output. Call it after every object has been released.
  void (*uninit)();
  // Creates one object. `params` is an IGXModCreateParams, borrowed for the call. 1: `*out` is the interface
  // asked for (an IControlSshPlugin), counted for the caller. 0: refused, the reason is logged, `*out` is
  // untouched. Thread: any.
  std::uint32_t (*create)(void* params, void** out);

  const char* build_stamp;  // "Nov 17 2025 12:09:42"
  void* reserved[8];        // null
};

// The one symbol that the shared library exports. Never null, never fails.
extern "C" const gxlink_module_t* gxmod_get_entrypoint();

// The type to which a host casts what dlsym returns for kGXModEntryPoint.
using gxmod_get_entrypoint_t = const gxlink_module_t* (*)();
// The name to look the symbol up by.
inline constexpr const char* kGXModEntryPoint = "gxmod_get_entrypoint";

#endif  // GXMOD_MODULE_H
