// Carries each connection through two processes that only copy, with a local socket between them: the least
// cost of two programs with a stream between them.
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "failure.h"
#include "socket.h"

namespace gxbench {
namespace {

constexpr std::size_t kBlockBytes = 64 * 1024;

// Copies until the stream ends or fails, and passes the end on.
void Copy(Socket& from, Socket& to) noexcept {
  try {
    std::vector<std::byte> block(kBlockBytes);
    while (const std::size_t got = from.Receive(block)) to.Send(std::span(block).first(got));
  } catch (const std::exception&) {
  }
  to.EndSending();
}

void CopyBothWays(Socket& one, Socket& other) {
  std::thread back([&] { Copy(other, one); });
  Copy(one, other);
  back.join();
}

// Runs `work` in a child process, which ends at the latest with this one.
template <class Work>
void InChild(Work work) {
  const pid_t pid = fork();
  if (pid < 0) throw Failure("fork failed");
  if (pid > 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  try {
    work();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "relay: %s\n", failure.what());
  }
  std::_Exit(0);
}

// Each child inherits both ends of the local socket and must close the other's, to detect its end.
void Carry(Socket client, const sockaddr_in& target) {
  std::pair<Socket, Socket> local = Socket::Pair();
  InChild([&] {
    local.second = {};
    CopyBothWays(client, local.first);
  });
  InChild([&] {
    local.first = {};
    client = {};
    Socket connection = Socket::Connect(target);
    CopyBothWays(local.second, connection);
  });
}

// Reaps children at once: only then is their processor time added to this process's.
void WaitForChildren(int) {
  const int error = errno;
  while (waitpid(-1, nullptr, WNOHANG) > 0) {
  }
  errno = error;
}

int Main(int count, char** words) {
  if (count != 3) throw Failure("usage: relay PORT 127.0.0.1:TARGET");
  signal(SIGCHLD, WaitForChildren);
  Listener listener(static_cast<std::uint16_t>(std::stoi(words[1])));
  const sockaddr_in target = ParseAddress(words[2]);
  for (Socket client; listener.Accept(client); client = {}) Carry(std::move(client), target);
  return 0;
}

}  // namespace
}  // namespace gxbench

int main(int count, char** words) {
  try {
    return gxbench::Main(count, words);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "relay: %s\n", failure.what());
    return 1;
  }
}
