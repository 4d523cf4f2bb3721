#include "gx-ssh/socket_client.h"

#include <signal.h>
#include <spdlog/spdlog.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <asio/io_context.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/signal_set.hpp>
#include <cerrno>
#include <system_error>

#include "common/borrowed_fd.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/relay.h"

namespace gxtool {
namespace {

// Waits while the listener's backlog is full.
Descriptor Connect(const std::string& path, std::chrono::milliseconds limit) {
  const asio::local::stream_protocol::endpoint endpoint(path);
  Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit);
  timeval time{};
  time.tv_sec = seconds.count();
  time.tv_usec = std::chrono::microseconds(limit - seconds).count();
  setsockopt(made.get(), SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
  if (connect(made.get(), endpoint.data(), static_cast<socklen_t>(endpoint.size())) != 0) {
    throw std::system_error(errno == EAGAIN ? ETIMEDOUT : errno, std::generic_category());
  }
  return made;
}

}  // namespace

int ConnectSocket(const std::string& path, std::chrono::milliseconds limit, int input, int output) {
  try {
    asio::io_context io;
    asio::signal_set signals(io, SIGINT, SIGTERM, SIGHUP);
    signals.async_wait([&io](asio::error_code, int) { io.stop(); });
    Descriptor socket = Connect(path, limit);
    const BorrowedFd borrowed_input(input);
    const BorrowedFd borrowed_output(output);
    int status = kExitOk;
    const auto ended = [&](const std::string& problem) {
      if (!problem.empty()) {
        spdlog::error("the connection has ended: {}", problem);
        status = kExitLinkLost;
      }
      io.stop();
    };
    const Relay relay(io, Descriptor(borrowed_input.Duplicate()), Descriptor(borrowed_output.Duplicate()),
                      std::move(socket), {}, {{}, {}, ended});
    io.run();
    return status;
  } catch (const std::system_error& error) {
    spdlog::error("cannot connect to unix:{}: {}", path, error.code().message());
    return kExitLinkLost;
  }
}

}  // namespace gxtool
