// The SSH plugin: forwards local TCP connections through a byte stream that the host provides.
//
// The host makes these calls on one thread: SetListener, InitInstance(stream), Run, then GetLocalAddress and
// GetLocalPort as needed, and ExitInstance before it releases the plugin.
#ifndef GXMOD_CONTROL_SSH_H
#define GXMOD_CONTROL_SSH_H

#include <cstdint>

#include "gxmod/module.h"
#include "gxmod/reference.h"

// The interface name to pass to `create` (letter case is ignored there), with major version 2.
inline constexpr const char* kControlSshInterfaceName = "IControlSshPlugin";
// The version to pass to `create`; a module with another major version refuses it.
inline constexpr GXModVersion kControlSshVersion{2, 0, 0};

// Result codes of the plugin's operations.
inline constexpr std::uint32_t kGXModOk = 0;                        // done
inline constexpr std::uint32_t kGXModNothingDone = 1;               // too early, or nothing to do
inline constexpr std::uint32_t kGXModFail = 0x80004005;             // failed; the reason is in the log
inline constexpr std::uint32_t kGXModInvalidArgument = 0x80070057;  // null where an object is needed
inline constexpr std::uint32_t kGXModUnexpected = 0x8000FFFF;  // wrong order: no stream yet, or already stopped

// The byte stream to the far side. The host implements it; the module holds references to it while it uses it.
// Lengths are in bytes; `flags` is always 0. One thread calls Read. Several threads call Write, one call at a
// time per plugin. Any thread may call Close, also while a Read or a Write is blocked.
class IPluginStreamRaw : public virtual IReference {
 public:
  // Blocks until at least one byte has arrived. Returns 0 after storing `*got` bytes in `data`; with `*got` 0
  // the module calls again. Returns non-zero when the stream has ended or failed.
  virtual std::uint32_t Read(void* data, unsigned length, unsigned* got, unsigned flags) = 0;
  // Returns 0 after taking `*written` bytes; the module calls again for the rest. Returns non-zero when the
  // stream failed.
  virtual std::uint32_t Write(const void* data, unsigned length, unsigned* written, unsigned flags) = 0;
  // Makes a blocked Read or Write and all later ones return non-zero at once.
  virtual std::uint32_t Close() = 0;
};

// Receives events from the plugin and answers its questions. The host implements it; the plugin holds a
// reference while it is set. Threads: called on the host's thread, from inside Run and ExitInstance.
class IControlSshListener : public virtual IReference {
 public:
  // Called at the end of a successful Run: local SSH clients can now connect to `address`:`port`.
  virtual void OnLocalAddress(const char* address, std::uint16_t port) = 0;
  // Called from ExitInstance, after everything has stopped.
  virtual void OnExit() = 0;
  // The host:port that the far side connects to. Empty means "127.0.0.1:22"; null is not allowed.
  virtual const char* GetRemoteAddress() = 0;
};

// The configuration operation that every plugin has.
class IAutoConfigRaw : public virtual IReference {
 public:
  // Reserved. Does nothing and returns 0.
  virtual std::uint32_t Load(const wchar_t* config) = 0;
};

// A plugin that works on one plugin stream.
class IPluginRaw : public IAutoConfigRaw {
 public:
  // Takes a reference to `stream` and prepares to use it. Returns 0, or 1 when preparation failed.
  virtual std::uint32_t InitInstance(IPluginStreamRaw* stream) = 0;
  // Starts the plugin. Returns 0; 1 before InitInstance; kGXModFail when no local port could be opened.
  virtual std::uint32_t Run() = 0;
  // Closes the stream, ends every connection, stops every thread and closes the port. Returns 0. Must not be
  // called from a callback of this plugin.
  virtual std::uint32_t ExitInstance() = 0;

  // Reserved. Does nothing and returns 0.
  virtual std::uint32_t SetPermission(const char* /*name*/, int /*value*/) { return kGXModOk; }
  // Reserved. Does nothing.
  virtual void Empty() {}
  // The stream given to InitInstance, as a new reference; empty when there is no stream.
  virtual CRefObj<IPluginStreamRaw> GetPluginStream() { return {}; }
};

// The interface that `create` returns.
class IControlSshPlugin : public virtual IPluginRaw, public virtual IGXModInterface {
 public:
  // The address that local SSH clients connect to; "127.0.0.1" before a successful Run. The text stays valid
  // until the next Run or the end of the plugin.
  virtual const char* GetLocalAddress() = 0;
  // The port that local SSH clients connect to; 22 before a successful Run.
  virtual std::uint16_t GetLocalPort() = 0;
  // Takes a reference to `listener` and releases the previous listener. Null removes the listener.
  virtual void SetListener(IControlSshListener* listener) = 0;
};

#endif  // GXMOD_CONTROL_SSH_H
