// The SSH plugin: forwards local TCP connections through a byte stream that the host provides.
//
// The host calls, on one thread: SetListener, InitInstance(stream), Run, then GetLocalAddress and GetLocalPort
// at will, and ExitInstance at the end, before it releases the plugin.
#ifndef GXMOD_CONTROL_SSH_H
#define GXMOD_CONTROL_SSH_H

#include <cstdint>

#include "gxmod/module.h"
#include "gxmod/reference.h"

// The name to ask `create` for (any letter case there), with major version 2.
inline constexpr const char* kControlSshInterfaceName = "IControlSshPlugin";
// The version to ask for; a module of another major version refuses.
inline constexpr GXModVersion kControlSshVersion{2, 0, 0};

// Result codes of the plugin's operations.
inline constexpr std::uint32_t kGXModOk = 0;                        // done
inline constexpr std::uint32_t kGXModNothingDone = 1;               // too early, or there was nothing to do
inline constexpr std::uint32_t kGXModFail = 0x80004005;             // failed; the reason is in the log
inline constexpr std::uint32_t kGXModInvalidArgument = 0x80070057;  // null where an object is needed
inline constexpr std::uint32_t kGXModUnexpected = 0x8000FFFF;       // out of order: no stream yet, or stopped

// The byte stream to the far side. Implemented by the host; counted by the module while it is in use.
// Lengths are bytes; `flags` is always 0. Read is called on one thread; Write on several, but one call at a
// time per plugin; Close on any, also while a Read or a Write is blocked.
class IPluginStreamRaw : public virtual IReference {
 public:
  // Blocks until at least one byte has come. 0: `*got` bytes are in `data`; 0 bytes means "ask again".
  // Non-zero: the stream has ended or failed.
  virtual std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) = 0;
  // 0: `*written` bytes were taken; the module writes the rest with further calls. Non-zero: the stream failed.
  virtual std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) = 0;
  // Makes a blocked Read or Write, and every later one, return non-zero at once.
  virtual std::uint32_t Close() = 0;
};

// What the host wants to hear of the plugin. Implemented by the host; counted by the plugin while it is set.
// Threads: called on the host's thread, from inside Run and ExitInstance.
class IControlSshListener : public virtual IReference {
 public:
  // At the end of a successful Run: local SSH clients may now connect to `address`:`port`.
  virtual void OnLocalAddress(const char* address, std::uint16_t port) = 0;
  // From ExitInstance, when everything has stopped.
  virtual void OnExit() = 0;
  // host:port that the far side shall connect to. Empty means "127.0.0.1:22"; null is not allowed.
  virtual const char* GetRemoteAddress() = 0;
};

// What every plugin can be configured with.
class IAutoConfigRaw : public virtual IReference {
 public:
  // Reserved. Does nothing and returns 0.
  virtual std::uint32_t Load(const wchar_t* config) = 0;
};

// A plugin that works on one plugin stream.
class IPluginRaw : public IAutoConfigRaw {
 public:
  // Takes a reference on `stream` and prepares to work on it. 0, or 1 when nothing could be prepared.
  virtual std::uint32_t InitInstance(IPluginStreamRaw* stream) = 0;
  // Starts to work. 0; 1 before InitInstance; kGXModFail when no local port could be opened.
  virtual std::uint32_t Run() = 0;
  // Closes the stream, ends every connection, stops every thread, closes the port. Returns 0. Must not be
  // called from inside a callback of this plugin.
  virtual std::uint32_t ExitInstance() = 0;

  // Reserved. Does nothing and returns 0.
  virtual std::uint32_t SetPermission(const char* /*name*/, int /*value*/) { return kGXModOk; }
  // Reserved. Does nothing.
  virtual void Empty() {}
  // The stream given to InitInstance, counted; empty when there is none.
  virtual CRefObj<IPluginStreamRaw> GetPluginStream() { return {}; }
};

// The interface that `create` hands out.
class IControlSshPlugin : public virtual IPluginRaw, public virtual IGXModInterface {
 public:
  // The address that local SSH clients connect to; "127.0.0.1" before a successful Run. The text is valid while
  // the plugin lives and Run is not running.
  virtual const char* GetLocalAddress() = 0;
  // The port that they connect to; 22 before a successful Run.
  virtual std::uint16_t GetLocalPort() = 0;
  // Takes a reference on `listener` and releases the previous one. Null clears it.
  virtual void SetListener(IControlSshListener* listener) = 0;
};

#endif  // GXMOD_CONTROL_SSH_H
