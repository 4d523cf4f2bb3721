// The hub of forwarding: channels, connections, the reactor and the reader of the plugin stream.
#ifndef GX_PORTFWD_PORT_FORWARD_CLIENT_H
#define GX_PORTFWD_PORT_FORWARD_CLIENT_H

#include <atomic>
#include <cstdint>
#include <string>

#include "base/mutex_lock.h"
#include "gxmod/control_ssh.h"
#include "object/reference.h"
#include "portfwd/channel.h"
#include "portfwd/channel_registry.h"
#include "portfwd/connection_handler.h"
#include "portfwd/connection_registry.h"
#include "portfwd/plugin_link.h"
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
class CPortForwardClientRaw final : public IPortForwardClientRaw,
                                    public IChannelOwner,
                                    public IConnectionOwner,
                                    public IFrameReceiver,
                                    private CReference {
 public:
  using Limits = CFlowControl::Limits;

  CPortForwardClientRaw() : CPortForwardClientRaw(Limits()) {}
  explicit CPortForwardClientRaw(const Limits& limits);
  // Stops. Does not close the plugin stream: without ExitInstance it waits for the host's Read to return.
  ~CPortForwardClientRaw() override;
  GX_FORWARD_REFERENCE();

  std::uint32_t Load(const wchar_t* /*config*/) override { return kGXModOk; }
  // kGXModInvalidArgument for null, which drops the stream held so far. A client that runs exits first: the
  // reader and the connections of a stream never go over to another one.
  std::uint32_t InitInstance(IPluginStreamRaw* stream) override;
  // kGXModUnexpected without a stream, or when stopped; kGXModFail when the system has no thread for the
  // reader.
  std::uint32_t Run() override;
  std::uint32_t ExitInstance() override;
  CRefObj<IPluginStreamRaw> GetPluginStream() override;

  // Also null, and nothing listens: there is no memory to tell the far side.
  IChannelRaw* NewChannel(const char* name, const char* protocol, const char* remote) override;
  std::uint32_t DeleteChannel2(unsigned long index) override;
  IChannelRaw* GetChannel2(unsigned long index) override;
  IChannelRaw* GetChannel(unsigned long position) override;
  unsigned long GetChannelsCount() override;
  std::uint32_t TestChannel(const char* name, const char* protocol, const char* text) override;
  void SetListener(IListener* listener) override;

  void OnAccept(IBaseStream* stream, CChannelRaw* channel) override;
  std::uint32_t Erase(CChannelRaw* channel) override;
  CReactor_T<tcp_select_tracker>* get_Tracker() override;

  CRefObj<MyHandler> FindStream(std::uint32_t id) override { return connections_.Find(id); }
  void OnReceiveChannelsList(const char* text) override;
  void OnTestRespond(const char* text, bool ok) override;

  void BeforeFrame() override;

  void OnEnd(MyHandler& connection, bool owes_close) override;

  void Stop();

 private:
  CRefObj<CChannelRaw> NewChannelImpl(const char* name, const char* protocol, const char* remote);
  std::uint32_t SaveChannels();
  bool PostClose(std::uint32_t id);
  SEND_TASK MakeSendTask(gxmod::ConnectionType type, std::uint32_t id, const std::string& payload);
  CRefObj<CPluginLink> Link();
  CRefObj<IListener> Listener();

  const Limits limits_;
  std::atomic<bool> stopping_{false};
  bool running_ = false;      // Run has started the reader; owner's thread only
  bool closes_owed_ = false;  // for want of memory; reader only

  CMutexLock lock_;
  CRefObj<IListener> listener_ GUARDED_BY(lock_);
  CRefObj<CPluginLink> link_ GUARDED_BY(lock_);  // of the present stream; empty: there is none
  CConnectionRegistry connections_{lock_};
  CChannelRegistry channels_{lock_};

  CMutexLock reactor_lock_;  // Run and Stop of the reactor exclude each other
  CReactor_T<tcp_select_tracker> reactor_;
  CServerStreamThread reader_;
};

// A client, counted for the caller.
CRefObj<IPortForwardClientRaw> CreatePortForwardClient();

#endif  // GX_PORTFWD_PORT_FORWARD_CLIENT_H
