// The centre of forwarding: channels, connections, the reactor and the reader of the plugin stream.
#ifndef GX_PORTFWD_PORT_FORWARD_CLIENT_H
#define GX_PORTFWD_PORT_FORWARD_CLIENT_H

#include <atomic>
#include <cstdint>
#include <string>

#include "base/mutex_lock.h"
#include "gxmod/control_ssh.h"
#include "object/creference.h"
#include "portfwd/channel.h"
#include "portfwd/channel_registry.h"
#include "portfwd/connection_handler.h"
#include "portfwd/connection_registry.h"
#include "portfwd/plugin_link.h"
#include "portfwd/send_task.h"
#include "portfwd/server_stream_thread.h"
#include "reactor/reactor.h"

// Threads: the owner's thread, which must not be one of the client's threads.
class IPortForwardClientRaw : public IPluginRaw {
 public:
  // Receives messages from the far side, on the thread that reads the plugin stream. It must not stop or
  // release the client in these calls.
  class IListener : public virtual IReference {
   public:
    virtual void OnChannelsList(const char* text) = 0;
    virtual void OnTestRespond(const char* text, bool ok) = 0;
  };

  // Returns a channel that listens on a local port for connections to `remote` (host:port). Borrowed: the
  // client holds it. Null when the client has stopped. Every change of the list is sent to the far side.
  virtual IChannelRaw* NewChannel(const char* name, const char* protocol, const char* remote) = 0;
  // Stops and drops the channel with that index, if it exists. Returns 0.
  virtual std::uint32_t DeleteChannel2(unsigned long index) = 0;
  // Find a channel by index or by position in the list. Null when there is none. Borrowed.
  virtual IChannelRaw* GetChannel2(unsigned long index) = 0;
  virtual IChannelRaw* GetChannel(unsigned long position) = 0;
  virtual unsigned long GetChannelsCount() = 0;
  // Asks the far side to run the test in `text`; the listener receives the answer. Name and protocol are
  // ignored.
  virtual std::uint32_t TestChannel(const char* name, const char* protocol, const char* text) = 0;
  // Takes a reference and releases the previous listener. Null is ignored: a listener can be replaced but not
  // removed.
  virtual void SetListener(IListener* listener) = 0;
};

// States: created (the reactor runs) -> InitInstance -> Run (the reader runs) -> ExitInstance -> stopped.
// A stopped client drops new connections, and channel lists open no port, until another InitInstance. After
// ExitInstance, and after the destructor, the client's threads, ports and connections are gone, and a remaining
// holder of one of its channels or streams cannot reach it.
//
// Locks: lock_ is held only to look up, copy or change the lists. It is never held while a stream is
// disconnected, a channel or the reactor stopped, a reference dropped, a thread joined or the host called.
class CPortForwardClientRaw final : public IPortForwardClientRaw,
                                    public IChannelOwner,
                                    public IConnectionOwner,
                                    public IFrameReceiver,
                                    private CReference {
 public:
  using Limits = CFlowControl::Limits;

  CPortForwardClientRaw() : CPortForwardClientRaw(Limits()) {}
  explicit CPortForwardClientRaw(const Limits& limits);
  // Stops. It leaves the plugin stream open: without an earlier ExitInstance it waits until the host's Read
  // returns.
  ~CPortForwardClientRaw() override;
  GX_FORWARD_REFERENCE();

  std::uint32_t Load(const wchar_t* /*config*/) override { return kGXModOk; }
  // Returns kGXModInvalidArgument for null, which drops the current stream. A running client exits first: its
  // reader and connections stay with their stream.
  std::uint32_t InitInstance(IPluginStreamRaw* stream) override;
  // Returns kGXModUnexpected without a stream or after a stop; kGXModFail when the reader's thread cannot be
  // started.
  std::uint32_t Run() override;
  std::uint32_t ExitInstance() override;
  CRefObj<IPluginStreamRaw> GetPluginStream() override;

  // Also null, without listening, when there is no memory for the message to the far side.
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
  bool closes_owed_ = false;  // a Close could not be sent because memory ran out; reader only

  CMutexLock lock_;
  CRefObj<IListener> listener_ GUARDED_BY(lock_);
  CRefObj<CPluginLink> link_ GUARDED_BY(lock_);  // of the current stream; empty without one
  CConnectionRegistry connections_{lock_};
  CChannelRegistry channels_{lock_};

  CMutexLock reactor_lock_;  // Run and Stop of the reactor exclude each other
  CReactor_T<tcp_select_tracker> reactor_;
  CServerStreamThread reader_;
};

// Creates a client; the caller owns the reference.
CRefObj<IPortForwardClientRaw> CreatePortForwardClient();

#endif  // GX_PORTFWD_PORT_FORWARD_CLIENT_H
