// One forwarding rule: a name, a target on the remote side, and a local port.
#ifndef GX_PORTFWD_CHANNEL_H
#define GX_PORTFWD_CHANNEL_H

#include <atomic>
#include <cstdint>
#include <string>

#include "base/mutex_lock.h"
#include "object/creference.h"
#include "portfwd/frame_alloctor.h"
#include "reactor/reactor.h"
#include "sock/sock_acceptor.h"

class CChannelRaw;

// The owner of a channel: the client. Threads: any.
class IChannelOwner {
 public:
  // Receives a new connection: gives the stream a handler or disconnects it.
  virtual void OnAccept(IBaseStream* stream, CChannelRaw* channel) = 0;
  // Returns the reactor, and starts it if necessary. Null when the owner has stopped or no thread can be
  // started.
  virtual CReactor_T<tcp_select_tracker>* get_Tracker() = 0;
  // Removes the channel from the owner's list.
  virtual std::uint32_t Erase(CChannelRaw* channel) = 0;

 protected:
  ~IChannelOwner() = default;
};

// A text from a getter is valid until the next put of that text (or the next get_LocalAddress); a null text
// counts as empty.
class IChannelRaw : public IReference {
 public:
  virtual const char* get_Name() = 0;
  virtual void put_Name(const char* name) = 0;
  virtual const char* get_RemoteAddress() = 0;  // host:port
  virtual void put_RemoteAddress(const char* address) = 0;
  // The local port as "127.0.0.1:port"; empty before the channel's first listen.
  virtual const char* get_LocalAddress() = 0;
  virtual const char* get_Protocol() = 0;
  virtual void put_Protocol(const char* protocol) = 0;
  // Non-zero lets other machines connect. A change listens at once on a new port, also when the channel is
  // stopped.
  virtual short get_AllowShare() = 0;
  virtual void put_AllowShare(short share) = 0;
  virtual std::uint32_t get_Index() = 0;
  virtual void put_Index(std::uint32_t index) = 0;
  // Listens on 127.0.0.1, whatever the allow-share value is. Returns false without a client or a port, and true
  // while running.
  virtual bool Run() = 0;
  // Closes the port and keeps the connections. Always true.
  virtual bool Stop() = 0;
  // Calls Stop and removes the channel from the client's list. The channel may be deleted when this returns.
  virtual std::uint32_t Erase() = 0;
};

class CChannelRaw final : public IChannelRaw, private CReference {
 public:
  CChannelRaw() = default;
  ~CChannelRaw() override;
  GX_FORWARD_REFERENCE();

  const char* get_Name() override { return name_.c_str(); }
  void put_Name(const char* name) override { PutText(name_, name); }
  const char* get_RemoteAddress() override { return remote_address_.c_str(); }
  void put_RemoteAddress(const char* address) override { PutText(remote_address_, address); }
  const char* get_LocalAddress() override;
  const char* get_Protocol() override { return protocol_.c_str(); }
  void put_Protocol(const char* protocol) override { PutText(protocol_, protocol); }
  short get_AllowShare() override { return allow_share_; }
  void put_AllowShare(short share) override;
  std::uint32_t get_Index() override { return index_; }
  void put_Index(std::uint32_t index) override { index_ = index; }
  bool Run() override;
  bool Stop() override;
  std::uint32_t Erase() override;

  // Borrowed. The client calls Detach before it is destroyed.
  void put_PortForwardClient(IChannelOwner* client) { client_ = client; }
  // Stops, and drops the client for good: a remaining holder of the channel cannot reach the client through it.
  void Detach();
  // Passes a new connection to the client.
  void OnAccept(CRefObj<CSockStream> stream);
  // A snapshot of the texts. Threads: any.
  struct Texts {
    std::string name;
    std::string protocol;
    std::string remote_address;
  };
  Texts GetTexts() const;

 private:
  // Reference-counted: a task in the reactor may outlive the channel.
  class SELECT_ACCEPTOR final : public CSockAcceptor, private CReference {
   public:
    explicit SELECT_ACCEPTOR(CChannelRaw* channel) : channel_(channel) {}
    GX_FORWARD_REFERENCE();
    // Listens. Accepts the connections in the backlog here, but lets the reactor serve them, because this
    // thread must not wait for the far side.
    bool Listen(const char* host_port, CReactor_T<tcp_select_tracker>& reactor);
    bool OnAccept(CRefObj<CSockStream> stream) override;
    // Waits for a running OnAccept of the channel and blocks all later ones.
    void Detach();

   private:
    const CRefObj<IMemAlloctor> memory_{new CFrameAlloctor};  // for the connections
    CStdMutex mutex_;                                         // held during calls to the channel
    CChannelRaw* channel_ GUARDED_BY(mutex_);
    std::atomic<ITimer*> starting_on_{nullptr};  // set during Listen
  };

  void PutText(std::string& text, const char* value);
  SELECT_ACCEPTOR& SelectAcceptor() REQUIRES(lock_);
  static bool Listen(SELECT_ACCEPTOR& acceptor, IChannelOwner& client, const char* host_port);

  CMutexLock lock_;
  CRefObj<SELECT_ACCEPTOR> acceptor_ GUARDED_BY(lock_);  // created on first use
  std::atomic<IChannelOwner*> client_{nullptr};
  std::string local_address_;
  std::atomic<std::uint32_t> index_{0};
  std::atomic<short> allow_share_{0};
  std::atomic<bool> running_{false};

  mutable CMutexLock text_lock_;  // for writers and GetTexts; taken after all other locks
  std::string name_;
  std::string protocol_;
  std::string remote_address_;
};

#endif  // GX_PORTFWD_CHANNEL_H
