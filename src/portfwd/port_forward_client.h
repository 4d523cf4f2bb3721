// The hub of forwarding: channels, connections, the reactor and the reader of the plugin stream.
#ifndef GX_PORTFWD_PORT_FORWARD_CLIENT_H
#define GX_PORTFWD_PORT_FORWARD_CLIENT_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "base/mutex_lock.h"
#include "gxmod/control_ssh.h"
#include "object/reference.h"
#include "portfwd/channel.h"
#include "portfwd/connection_handler.h"
#include "portfwd/plugin_writer.h"
#include "portfwd/send_task.h"
#include "portfwd/server_stream_thread.h"
#include "reactor/reactor.h"

// Threads: one owner's thread, which must not be one of the client's own.
class IPortForwardClientRaw : public IPluginRaw {
 public:
  // Hears from the far side, on the thread that reads the plugin stream. Must not stop or release the client
  // there.
  class IListener : public virtual IReference {
   public:
    virtual void OnChannelsList(const char* text) = 0;
    virtual void OnTestRespond(const char* text, bool ok) = 0;
  };

  // A channel that listens on a local port for connections to `remote` (host:port). Not counted: the client
  // holds it. Null: the client has stopped. Every change of the list is sent to the far side.
  virtual IChannelRaw* NewChannel(const char* name, const char* protocol, const char* remote) = 0;
  // Stops and drops the channel with that index, if there is one. Returns 0.
  virtual std::uint32_t DeleteChannel2(unsigned long index) = 0;
  // By index, by position in the list; null: no such channel. Not counted.
  virtual IChannelRaw* GetChannel2(unsigned long index) = 0;
  virtual IChannelRaw* GetChannel(unsigned long position) = 0;
  virtual unsigned long GetChannelsCount() = 0;
  // Asks the far side to test what `text` says; the listener hears of the answer. Name and protocol are not
  // used.
  virtual std::uint32_t TestChannel(const char* name, const char* protocol, const char* text) = 0;
  // Takes a reference and releases the previous listener. Null is ignored: the listener cannot be cleared.
  virtual void SetListener(IListener* listener) = 0;
};

// States: created (the reactor runs) -> InitInstance -> Run (the reader runs) -> ExitInstance -> stopped.
// Nothing brings a stopped client back but another InitInstance: connections that still come are dropped,
// channel lists open no port. After ExitInstance, and after the destructor, no thread, port or connection of
// the client is left, and whoever still holds a channel or a stream of it has no way back into it.
//
// Locks: lock_ is taken to look up, copy or change the lists and is never held while a stream is disconnected,
// a channel or the reactor stopped, a reference dropped, a thread joined or the host called.
class CPortForwardClientRaw final : public IPortForwardClientRaw, private CReference {
 public:
  // How long and how much a local client may let its data wait.
  struct Limits {
    std::uint64_t high_mark_bytes = 64 * 1024 * 1024;  // queued on one connection before the reader pauses
    std::uint64_t stall_ms = 60'000;                   // without taking a byte meanwhile: disconnected
  };

  CPortForwardClientRaw() : CPortForwardClientRaw(Limits()) {}
  explicit CPortForwardClientRaw(const Limits& limits);
  // Stops. Does not close the plugin stream: without ExitInstance it waits for the host's Read to return.
  ~CPortForwardClientRaw() override;
  GX_FORWARD_REFERENCE();

  std::uint32_t Load(const wchar_t* /*config*/) override { return kGXModOk; }
  // kGXModInvalidArgument for null, which drops the stream held so far.
  std::uint32_t InitInstance(IPluginStreamRaw* stream) override;
  // kGXModUnexpected without a stream, or when stopped; kGXModFail when the system has no thread for the
  // reader.
  std::uint32_t Run() override;
  std::uint32_t ExitInstance() override;
  CRefObj<IPluginStreamRaw> GetPluginStream() override;

  IChannelRaw* NewChannel(const char* name, const char* protocol, const char* remote) override;
  std::uint32_t DeleteChannel2(unsigned long index) override;
  IChannelRaw* GetChannel2(unsigned long index) override;
  IChannelRaw* GetChannel(unsigned long position) override;
  unsigned long GetChannelsCount() override;
  std::uint32_t TestChannel(const char* name, const char* protocol, const char* text) override;
  void SetListener(IListener* listener) override;

  // For channels. Any thread.
  void OnAccept(IBaseStream* stream, CChannelRaw* channel);
  std::uint32_t Erase(CChannelRaw* channel);
  // The running reactor, started if need be; null when the client has stopped, or no thread can be had.
  CReactor_T<tcp_select_tracker>* get_Tracker();

  // For connections and the reader. Any thread.
  CRefObj<MyHandler> FindStream(std::uint32_t id);
  void DeleteStream(std::uint32_t id);
  // Has the reactor write the Close frame when the reader calls, which must never wait for the far side. False:
  // the caller has to write it.
  bool LeaveCloseToReactor(std::uint32_t id);
  // Empty without a plugin stream.
  CRefObj<CPluginWriter> Writer();
  // The stream of the next frame. ExitInstance closes it also when another one has taken its place by then, so
  // that the reader never stays behind in it.
  CRefObj<IPluginStreamRaw> StreamToRead();
  void OnReceiveChannelsList(const char* text);
  void OnTestRespond(const char* text, bool ok);
  bool IsStopping() const { return stopping_.load(std::memory_order_acquire); }
  const Limits& GetLimits() const { return limits_; }

  void Stop();

 private:
  using Channels = std::vector<CRefObj<CChannelRaw>>;

  CRefObj<CChannelRaw> NewChannelImpl(const char* name, const char* protocol, const char* remote);
  bool AddChannels(const Channels& added);
  template <class Matches>
  CRefObj<CChannelRaw> TakeChannel(Matches matches);
  std::uint32_t SaveChannels();
  SEND_TASK MakeSendTask(gxmod::ConnectionType type, std::uint32_t id, const std::string& payload);
  CRefObj<IListener> Listener();

  const Limits limits_;
  std::atomic<bool> stopping_{false};  // set under lock_

  CMutexLock lock_;
  CRefObj<IListener> listener_ GUARDED_BY(lock_);
  CRefObj<IPluginStreamRaw> plugin_stream_ GUARDED_BY(lock_);
  CRefObj<IPluginStreamRaw> reading_ GUARDED_BY(lock_);  // what the reader is in
  CRefObj<CPluginWriter> writer_ GUARDED_BY(lock_);
  std::map<std::uint32_t, CRefObj<MyHandler>> connections_ GUARDED_BY(lock_);
  Channels channels_ GUARDED_BY(lock_);  // in the order of their creation

  CMutexLock reactor_lock_;  // Run and Stop of the reactor exclude each other
  CReactor_T<tcp_select_tracker> reactor_;
  CServerStreamThread reader_;
};

// A client, counted for the caller.
CRefObj<IPortForwardClientRaw> CreatePortForwardClient();

#endif  // GX_PORTFWD_PORT_FORWARD_CLIENT_H
