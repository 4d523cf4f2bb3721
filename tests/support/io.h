// Reading and writing descriptors with bounded waits.
#ifndef GX_TESTS_SUPPORT_IO_H
#define GX_TESTS_SUPPORT_IO_H

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "support/wait.h"

namespace gxtest {

inline constexpr int kBoundMs = std::chrono::milliseconds(kPatience).count();  // of every wait

inline bool WaitFor(int fd, short events, int bound_ms = kBoundMs) {
  pollfd entry{fd, events, 0};
  return TEMP_FAILURE_RETRY(poll(&entry, 1, bound_ms)) == 1;
}

// Empty: the end. Nothing: an error, such as a reset, or time is up.
inline std::optional<std::string> TryRead(int fd, std::size_t limit) {
  std::string bytes(limit, '\0');
  const ssize_t count = WaitFor(fd, POLLIN) ? read(fd, bytes.data(), bytes.size()) : -1;
  if (count < 0) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(count));
  return bytes;
}

inline std::string ReadSome(int fd, std::size_t limit = 65536) { return TryRead(fd, limit).value_or(""); }

// Fewer bytes at the end, or when time is up.
inline std::string ReadExactly(int fd, std::size_t length) {
  std::string bytes;
  for (std::string piece = "."; bytes.size() < length && !piece.empty(); bytes += piece) {
    piece = ReadSome(fd, std::min<std::size_t>(length - bytes.size(), 1 << 20));
  }
  return bytes;
}

// Nothing after an error, or when time is up before the end.
inline std::optional<std::string> TryReadToEnd(int fd) {
  std::string bytes;
  for (;;) {
    const std::optional<std::string> piece = TryRead(fd, 65536);
    if (!piece) return std::nullopt;
    if (piece->empty()) return bytes;
    bytes += *piece;
  }
}

inline std::string ReadToEnd(int fd) { return TryReadToEnd(fd).value_or("nothing, or an error"); }

// To a socket.
inline bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        WaitFor(fd, POLLOUT) ? send(fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) : -1;
    if (count <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_IO_H
