#include "portfwd/channel.h"

#include "portfwd/send_task.h"

namespace {

constexpr const char* kListenLocal = "127.0.0.1:0";
constexpr const char* kListenShared = "0.0.0.0:0";
const std::string kAnyAddress = "0.0.0.0";

void TellConnected(CSockStream& stream) {
  if (IBaseStream::IBaseHandler* handler = stream.Handler()) {
    handler->Handle(&stream, IBaseStream::kConnected, nullptr, 0);
  } else {
    stream.Disconnect(0);  // no handler has taken it
  }
}

// The same, as a task on the reactor's thread.
struct CONNECTED_TASK {
  CRefObj<CSockStream> stream;
  void Done() try { TellConnected(*stream); } catch (...) {
    stream->Disconnect(kStreamOtherError);  // without its handler it would never be read
    throw;
  }
};

}  // namespace

CChannelRaw::~CChannelRaw() {
  Detach();
  if (acceptor_) acceptor_->Detach();
}

const char* CChannelRaw::get_LocalAddress() {
  CAutoLock lock(lock_);
  local_address_ = SelectAcceptor().GetAddress();
  // Local programs cannot connect to the "any" address; the port is the same on the loopback address.
  if (local_address_.compare(0, kAnyAddress.size(), kAnyAddress) == 0) {
    local_address_.replace(0, kAnyAddress.size(), "127.0.0.1");
  }
  return local_address_.c_str();
}

void CChannelRaw::put_AllowShare(short share) {
  if (allow_share_.exchange(share) == share) return;
  CRefObj<SELECT_ACCEPTOR> previous;
  {
    CAutoLock lock(lock_);
    IChannelOwner* client = client_;
    if (client == nullptr) return;
    previous = acceptor_;
    acceptor_ = CRefObj<SELECT_ACCEPTOR>(new SELECT_ACCEPTOR(this));
    Listen(*acceptor_, *client, share != 0 ? kListenShared : kListenLocal);
  }
  if (!previous) return;
  previous->Stop();
  previous->Detach();
}

bool CChannelRaw::Run() {
  CAutoLock lock(lock_);
  if (running_) return true;
  IChannelOwner* client = client_;
  if (client == nullptr) return false;
  running_ = true;  // stays set when listening fails, until Stop
  return Listen(SelectAcceptor(), *client, kListenLocal);
}

bool CChannelRaw::Stop() {
  CAutoLock lock(lock_);
  if (!running_) return true;
  running_ = false;
  if (acceptor_) acceptor_->Stop();
  return true;
}

std::uint32_t CChannelRaw::Erase() {
  Stop();
  IChannelOwner* client = client_;
  return client != nullptr ? client->Erase(this) : 0;
}

void CChannelRaw::Detach() {
  CAutoLock lock(lock_);
  client_ = nullptr;
  running_ = false;
  // An acceptor may be listening although the channel does not run: put_AllowShare starts one.
  if (acceptor_) acceptor_->Stop();
}

void CChannelRaw::OnAccept(CRefObj<CSockStream> stream) {
  if (IChannelOwner* client = client_) client->OnAccept(stream.get(), this);
}

CChannelRaw::Texts CChannelRaw::GetTexts() const {
  CAutoLock lock(text_lock_);
  return {name_, protocol_, remote_address_};
}

void CChannelRaw::PutText(std::string& text, const char* value) {
  CAutoLock lock(text_lock_);
  text = value != nullptr ? value : "";
}

CChannelRaw::SELECT_ACCEPTOR& CChannelRaw::SelectAcceptor() {
  if (!acceptor_) acceptor_ = CRefObj<SELECT_ACCEPTOR>(new SELECT_ACCEPTOR(this));
  return *acceptor_;
}

// Without a running client there is no reactor to serve the port.
bool CChannelRaw::Listen(SELECT_ACCEPTOR& acceptor, IChannelOwner& client, const char* host_port) {
  CReactor_T<tcp_select_tracker>* reactor = client.get_Tracker();
  return reactor != nullptr && acceptor.Listen(host_port, *reactor);
}

bool CChannelRaw::SELECT_ACCEPTOR::Listen(const char* host_port, CReactor_T<tcp_select_tracker>& reactor) {
  struct Scope {  // StartListen may throw
    ~Scope() { starting_on = nullptr; }
    std::atomic<ITimer*>& starting_on;
  };
  const Scope scope{starting_on_};
  starting_on_ = &reactor;
  return StartListen(host_port, &reactor);
}

bool CChannelRaw::SELECT_ACCEPTOR::OnAccept(CRefObj<CSockStream> stream) {
  stream->SetMemAlloc(memory_.get());
  {
    CStdLock lock(mutex_);
    if (channel_ != nullptr) channel_->OnAccept(stream);
  }
  if (ITimer* reactor = starting_on_) {
    PostTask(*reactor, CONNECTED_TASK{stream});
  } else {
    TellConnected(*stream);
  }
  return true;
}

void CChannelRaw::SELECT_ACCEPTOR::Detach() {
  CStdLock lock(mutex_);
  channel_ = nullptr;
}
