#include "peer/name_query.h"

#include <ares.h>
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdlib>
#include <exception>
#include <map>
#include <random>
#include <utility>

namespace gxtool {
namespace {

// Without /dev/urandom c-ares makes its query ids with rand; the seed makes them hard to guess.
void InitLibraryOnce() {
  static const int status = [] {
    std::srand(std::random_device()());
    return ares_library_init(ARES_LIB_INIT_ALL);
  }();
  static_cast<void>(status);
}

LookupResult Failed(int status) {
  LookupResult result;
  result.error = ares_strerror(status);
  return result;
}

LookupResult Found(const ares_addrinfo& list) {
  LookupResult result;
  for (const ares_addrinfo_node* node = list.nodes; node != nullptr; node = node->ai_next) {
    char text[INET6_ADDRSTRLEN];
    const void* const address =
        node->ai_family == AF_INET
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(node->ai_addr)->sin_addr)
            : &reinterpret_cast<const sockaddr_in6*>(node->ai_addr)->sin6_addr;
    if (inet_ntop(node->ai_family, address, text, sizeof text) != nullptr) result.addresses.emplace_back(text);
  }
  if (result.addresses.empty()) result.error = "the name has no address";
  return result;
}

}  // namespace

const bool kAsksNameServers = true;

// A resolver for one query, so that queries are independent and each one uses the system's current
// configuration. Ownership: shared with the pending waits.
class NameQuery::Channel : public std::enable_shared_from_this<Channel> {
 public:
  Channel(asio::io_context& io, Done done) : io_(io), timer_(io), done_(std::move(done)) {}

  void Ask(const std::string& servers, const std::string& host);
  void Answer(LookupResult result);
  void End();

 private:
  enum Direction { kRead, kWrite };
  struct Socket {
    explicit Socket(asio::io_context& io) : descriptor(io) {}
    StreamDescriptor descriptor;  // c-ares owns the descriptor
    bool wanted[2] = {};
    bool waiting[2] = {};
  };

  static void OnSocket(void* self, ares_socket_t fd, int readable, int writable);
  static void OnAnswer(void* self, int status, int timeouts, ares_addrinfo* list);

  void Watch(ares_socket_t fd, bool readable, bool writable);
  void Process(ares_socket_t readable, ares_socket_t writable);
  // Waits for the events that c-ares has requested.
  void Wait();
  void WaitFor(ares_socket_t fd, const std::shared_ptr<Socket>& socket, Direction direction);

  asio::io_context& io_;
  Timer timer_;
  Done done_;
  ares_channel ares_ = nullptr;
  std::map<ares_socket_t, std::shared_ptr<Socket>> sockets_;
};

void NameQuery::Channel::Ask(const std::string& servers, const std::string& host) {
  InitLibraryOnce();
  char sources[] = "fb";  // the hosts file, then name servers
  ares_options options{};
  options.lookups = sources;
  options.sock_state_cb = OnSocket;
  options.sock_state_cb_data = this;
  int status = ares_init_options(&ares_, &options, ARES_OPT_LOOKUPS | ARES_OPT_SOCK_STATE_CB);
  if (status == ARES_SUCCESS && !servers.empty()) status = ares_set_servers_ports_csv(ares_, servers.c_str());
  if (status != ARES_SUCCESS) return Answer(Failed(status));
  ares_addrinfo_hints hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  ares_getaddrinfo(ares_, host.c_str(), nullptr, &hints, OnAnswer, this);
  Wait();
}

void NameQuery::Channel::End() {
  done_ = nullptr;
  timer_.cancel();
  if (ares_ != nullptr) ares_destroy(std::exchange(ares_, nullptr));
}

void NameQuery::Channel::OnSocket(void* self, ares_socket_t fd, int readable, int writable) {
  static_cast<Channel*>(self)->Watch(fd, readable != 0, writable != 0);
}

void NameQuery::Channel::Watch(ares_socket_t fd, bool readable, bool writable) {
  auto& socket = sockets_[fd];
  if (socket == nullptr) {
    socket = std::make_shared<Socket>(io_);
    asio::error_code ignored;  // a socket that cannot be watched ends in the timeout
    socket->descriptor.assign(fd, ignored);
  }
  socket->wanted[kRead] = readable;
  socket->wanted[kWrite] = writable;
  if (readable || writable) return;
  if (socket->descriptor.is_open()) socket->descriptor.release();
  sockets_.erase(fd);
}

void NameQuery::Channel::OnAnswer(void* self, int status, int /*timeouts*/, ares_addrinfo* list) {
  const LookupResult result = status == ARES_SUCCESS && list != nullptr ? Found(*list) : Failed(status);
  if (list != nullptr) ares_freeaddrinfo(list);
  if (status != ARES_EDESTRUCTION) static_cast<Channel*>(self)->Answer(result);
}

// Posted, because a channel must not be destroyed inside one of its own calls.
void NameQuery::Channel::Answer(LookupResult result) {
  asio::post(io_, [self = shared_from_this(), result = std::move(result)] {
    if (const Done done = std::exchange(self->done_, nullptr)) done(result);
  });
}

void NameQuery::Channel::Process(ares_socket_t readable, ares_socket_t writable) {
  if (ares_ == nullptr) return;
  ares_process_fd(ares_, readable, writable);
  Wait();
}

void NameQuery::Channel::Wait() {
  for (const auto& [fd, socket] : sockets_) {
    for (const Direction direction : {kRead, kWrite}) WaitFor(fd, socket, direction);
  }
  timeval time{};
  if (ares_timeout(ares_, nullptr, &time) == nullptr) return;
  timer_.expires_after(std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec));
  timer_.async_wait([self = shared_from_this()](asio::error_code error) {
    if (!error) self->Process(ARES_SOCKET_BAD, ARES_SOCKET_BAD);
  });
}

void NameQuery::Channel::WaitFor(ares_socket_t fd, const std::shared_ptr<Socket>& socket, Direction direction) {
  if (!socket->wanted[direction] || socket->waiting[direction] || !socket->descriptor.is_open()) return;
  socket->waiting[direction] = true;
  const auto type = direction == kRead ? StreamDescriptor::wait_read : StreamDescriptor::wait_write;
  socket->descriptor.async_wait(type, [self = shared_from_this(), fd, socket, direction](asio::error_code) {
    socket->waiting[direction] = false;
    // The descriptor number may belong to another socket by now.
    if (!socket->descriptor.is_open()) return;
    self->Process(direction == kRead ? fd : ARES_SOCKET_BAD, direction == kWrite ? fd : ARES_SOCKET_BAD);
  });
}

NameQuery::NameQuery(asio::io_context& io, const std::string& servers, const std::string& host, Done done)
    : channel_(std::make_shared<Channel>(io, std::move(done))) {
  channel_->Ask(servers, host);
}

NameQuery::NameQuery(asio::io_context& io, LookupResult answer, Done done)
    : channel_(std::make_shared<Channel>(io, std::move(done))) {
  channel_->Answer(std::move(answer));
}

NameQuery::~NameQuery() {
  try {
    channel_->End();
  } catch (const std::exception&) {  // cancelling a timer is declared to throw
  }
}

}  // namespace gxtool
