// The clients of support/swarm.h: swarm PORT CLIENTS BYTES_EACH
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "support/pattern.h"

namespace {

constexpr int kNoProgressMs = 10'000;
constexpr std::size_t kPartBytes = 64 * 1024;
constexpr std::size_t kWaitForAnswer =
    100;  // clients; more could fill a backlog, and that takes a second to mend

struct Client {
  int socket;
  std::uint32_t seed;
  std::size_t sent = 0;
  std::size_t received = 0;
};

[[noreturn]] void GiveUp(const Client& client, const char* why) {
  std::fprintf(stderr, "swarm: client %u, %zu bytes sent, %zu received: %s (errno %d)\n", client.seed,
               client.sent, client.received, why, errno);
  std::exit(1);
}

Client Connect(int port, std::uint32_t seed) {
  const Client client{socket(AF_INET, SOCK_STREAM, 0), seed};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(client.socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    GiveUp(client, "cannot connect");
  }
  return client;
}

void SendPart(Client& client, std::size_t total) {
  const std::string part = gxtest::Pattern(std::min(kPartBytes, total - client.sent), client.seed, client.sent);
  const ssize_t sent = send(client.socket, part.data(), part.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (sent < 0 && errno != EAGAIN) GiveUp(client, "cannot send");
  if (sent > 0) client.sent += static_cast<std::size_t>(sent);
}

void ReceivePart(Client& client) {
  char part[kPartBytes];
  const ssize_t got = recv(client.socket, part, sizeof part, MSG_DONTWAIT);
  if (got < 0 && errno == EAGAIN) return;
  if (got <= 0) GiveUp(client, "the connection has ended");
  const std::string_view bytes(part, static_cast<std::size_t>(got));
  const std::string fault = gxtest::PatternFault(bytes, client.seed, client.received);
  client.received += bytes.size();
  if (!fault.empty() || client.received > client.sent) GiveUp(client, fault.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  rlimit descriptors;
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);

  const std::size_t count = std::strtoull(argv[2], nullptr, 10);
  const std::size_t total = std::strtoull(argv[3], nullptr, 10);
  std::vector<Client> clients;
  for (std::size_t answered = 0, finished = 0; finished < count;) {
    while (clients.size() < std::min(count, answered + kWaitForAnswer)) {
      clients.push_back(Connect(std::atoi(argv[1]), static_cast<std::uint32_t>(clients.size() + 1)));
    }
    std::vector<pollfd> waiters;
    for (const Client& client : clients) {
      const bool wants_answer = client.received < total;
      const bool wants_to_send = client.sent < total;
      waiters.push_back({wants_answer ? client.socket : -1,
                         static_cast<short>(wants_to_send ? POLLIN | POLLOUT : POLLIN), 0});
    }
    if (poll(waiters.data(), waiters.size(), kNoProgressMs) <= 0) {
      for (const Client& client : clients) {
        if (client.received < total) GiveUp(client, "nothing moves");
      }
    }
    answered = finished = 0;
    for (std::size_t i = 0; i < clients.size(); ++i) {
      if (waiters[i].revents & POLLOUT) SendPart(clients[i], total);
      if (waiters[i].revents & (POLLIN | POLLERR | POLLHUP)) ReceivePart(clients[i]);
      if (clients[i].received != 0) ++answered;
      if (clients[i].received == total) ++finished;
    }
  }
  for (const Client& client : clients) close(client.socket);
  return 0;
}
