// Carries all connections in frames through two processes with one thread each way, and does nothing else: for
// few connections the least cost of the design of gx-ssh. As there, a frame on the way up holds 4,096 bytes and
// is copied once more. A connection to the target is opened when its client sends the first byte.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "failure.h"
#include "socket.h"

namespace gxbench {
namespace {

constexpr std::size_t kUpFrameBytes = 4096;
constexpr std::size_t kTurnBytes = 64 * 1024;     // of one connection, then the next one has its turn
constexpr std::size_t kStreamBytes = 256 * 1024;  // of one read from the stream

struct Header {
  enum class Kind : std::uint32_t { kOpen, kData, kEnd } kind;
  std::uint32_t id;
  std::uint64_t length;
};

struct Connection {
  Socket socket;
  std::uint32_t id = 0;
  bool is_open = false;  // for the far side, too
  bool reads = true;     // directions that have not ended
  bool writes = true;
};

// Thread: any, for all functions.
class Connections {
 public:
  Connections() {
    if (pipe(added_.data()) != 0) throw Failure("pipe failed");
  }

  void Add(Connection connection) {
    const std::lock_guard lock(mutex_);
    const std::uint32_t id = connection.id;
    known_[id] = std::make_shared<Connection>(std::move(connection));
    if (write(added_[1], "", 1) != 1) throw Failure("write failed");
  }

  // Null if the connection has ended.
  std::shared_ptr<Connection> Find(std::uint32_t id) {
    const std::lock_guard lock(mutex_);
    const auto found = known_.find(id);
    return found == known_.end() ? nullptr : found->second;
  }

  void End(Connection& connection, bool Connection::*direction) {
    const std::lock_guard lock(mutex_);
    connection.*direction = false;
    if (!connection.reads && !connection.writes) known_.erase(connection.id);
  }

  // Waits for connections with input, or for a new one.
  std::vector<std::shared_ptr<Connection>> Ready() {
    std::vector<pollfd> polled{{added_[0], POLLIN, 0}};
    std::vector<std::shared_ptr<Connection>> ready;
    {
      const std::lock_guard lock(mutex_);
      for (const auto& [id, connection] : known_) {
        if (!connection->reads) continue;
        polled.push_back({connection->socket.fd(), POLLIN, 0});
        ready.push_back(connection);
      }
    }
    if (poll(polled.data(), polled.size(), -1) < 0) throw Failure("poll failed");
    char one = 0;
    if (polled[0].revents != 0 && read(added_[0], &one, 1) != 1) throw Failure("read failed");
    std::size_t index = 0;
    std::erase_if(ready, [&](const auto&) { return polled[++index].revents == 0; });
    return ready;
  }

 private:
  std::mutex mutex_;
  std::map<std::uint32_t, std::shared_ptr<Connection>> known_;
  std::array<int, 2> added_{};
};

// From the connections to the stream.
class Gatherer {
 public:
  Gatherer(Connections& connections, Socket& stream, std::size_t frame_bytes)
      : connections_(connections), stream_(stream), frame_bytes_(frame_bytes) {}

  void Run() {
    for (;;) {
      for (const auto& connection : connections_.Ready()) Serve(*connection);
    }
  }

 private:
  void Serve(Connection& from) {
    if (!std::exchange(from.is_open, true)) SendObject(stream_, Header{Header::Kind::kOpen, from.id, 0});
    std::size_t got = 0;
    try {
      // A turn that is one frame is read to its place in the frame.
      got = from.socket.Receive(frame_bytes_ < kTurnBytes
                                    ? std::span(block_)
                                    : std::span(frames_).subspan(sizeof(Header), kTurnBytes));
    } catch (const Failure&) {
    }
    if (got == 0) {
      connections_.End(from, &Connection::reads);
      return SendObject(stream_, Header{Header::Kind::kEnd, from.id, 0});
    }
    std::byte* to = frames_.data();
    for (std::size_t at = 0; at < got; at += frame_bytes_) {
      const std::size_t length = std::min(frame_bytes_, got - at);
      const Header header{Header::Kind::kData, from.id, length};
      std::memcpy(to, &header, sizeof header);
      if (frame_bytes_ < kTurnBytes) std::memcpy(to + sizeof header, block_.data() + at, length);
      to += sizeof header + length;
    }
    stream_.Send(std::span(frames_.data(), to));
  }

  Connections& connections_;
  Socket& stream_;
  const std::size_t frame_bytes_;
  std::vector<std::byte> block_ = std::vector<std::byte>(kTurnBytes);
  std::vector<std::byte> frames_ =
      std::vector<std::byte>(kTurnBytes + kTurnBytes / kUpFrameBytes * sizeof(Header));
};

// From the stream to the connections. Frames of one connection that follow each other are sent with one call.
class Scatterer {
 public:
  Scatterer(Connections& connections, Socket& stream, const sockaddr_in& target)
      : connections_(connections), stream_(stream), target_(target) {}

  // Returns when the stream ends.
  void Run() {
    std::size_t kept = 0;
    while (const std::size_t got = stream_.Receive(std::span(block_).subspan(kept, kStreamBytes))) {
      const std::size_t used = Take(std::span(block_).first(kept + got));
      kept += got - used;
      std::memmove(block_.data(), block_.data() + used, kept);
    }
  }

 private:
  // Returns the number of bytes up to an incomplete header.
  std::size_t Take(std::span<std::byte> bytes) {
    std::size_t at = 0;
    while (left_ > 0 ? at < bytes.size() : bytes.size() - at >= sizeof(Header)) {
      if (left_ > 0) {
        const std::size_t length = std::min<std::size_t>(left_, bytes.size() - at);
        pieces_.push_back({bytes.data() + at, length});
        left_ -= length;
        at += length;
      } else {
        Header header{};
        std::memcpy(&header, bytes.data() + at, sizeof header);
        OnHeader(header);
        at += sizeof header;
      }
    }
    Send();
    return at;
  }

  void OnHeader(const Header& header) {
    if (header.kind == Header::Kind::kOpen) {
      return connections_.Add({.socket = Socket::Connect(target_), .id = header.id, .is_open = true});
    }
    if (!to_ || to_->id != header.id) {
      Send();
      to_ = connections_.Find(header.id);
    }
    left_ = header.length;
    if (header.kind != Header::Kind::kEnd || !to_) return;
    Send();
    to_->socket.EndSending();
    connections_.End(*to_, &Connection::writes);
    to_ = nullptr;
  }

  // What a broken connection does not take is dropped.
  void Send() {
    for (std::size_t first = 0; to_ && first < pieces_.size();) {
      msghdr message{};
      message.msg_iov = pieces_.data() + first;
      message.msg_iovlen = std::min<std::size_t>(pieces_.size() - first, IOV_MAX);
      const ssize_t sent = sendmsg(to_->socket.fd(), &message, MSG_NOSIGNAL);
      if (sent <= 0) break;
      auto left = static_cast<std::size_t>(sent);
      while (first < pieces_.size() && left >= pieces_[first].iov_len) left -= pieces_[first++].iov_len;
      if (left == 0) continue;
      pieces_[first].iov_base = static_cast<std::byte*>(pieces_[first].iov_base) + left;
      pieces_[first].iov_len -= left;
    }
    pieces_.clear();
  }

  Connections& connections_;
  Socket& stream_;
  const sockaddr_in target_;
  std::vector<std::byte> block_ = std::vector<std::byte>(kStreamBytes + sizeof(Header));
  std::vector<iovec> pieces_;       // of payload, for to_
  std::shared_ptr<Connection> to_;  // null: its frames are dropped
  std::uint64_t left_ = 0;          // bytes of the current frame
};

// Ends the process when one of its threads ends.
template <class Work>
[[noreturn]] void UntilTheEnd(Work work) {
  try {
    work();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "multiplexer: %s\n", failure.what());
  }
  std::_Exit(1);
}

[[noreturn]] void RunThreads(Connections& connections, Socket& stream, std::size_t frame_bytes,
                             const sockaddr_in& target) {
  std::thread([&] { UntilTheEnd([&] { Gatherer(connections, stream, frame_bytes).Run(); }); }).detach();
  UntilTheEnd([&] { Scatterer(connections, stream, target).Run(); });
}

[[noreturn]] void Main(int count, char** words) {
  if (count != 3) throw Failure("usage: multiplexer PORT 127.0.0.1:TARGET");
  SetSockets({.patience_s = 0});  // the stream may be idle for any time
  Listener listener(static_cast<std::uint16_t>(std::stoi(words[1])));
  const sockaddr_in target = ParseAddress(words[2]);
  std::pair<Socket, Socket> stream = Socket::Pair();
  const pid_t pid = fork();
  if (pid < 0) throw Failure("fork failed");
  Connections connections;
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    stream.first = {};
    RunThreads(connections, stream.second, kTurnBytes, target);
  }
  stream.second = {};
  std::thread([&] { RunThreads(connections, stream.first, kUpFrameBytes, target); }).detach();
  UntilTheEnd([&] {
    std::uint32_t id = 0;
    for (Socket client; listener.Accept(client); client = {}) {
      connections.Add({.socket = std::move(client), .id = ++id});
    }
  });
}

}  // namespace
}  // namespace gxbench

int main(int count, char** words) {
  try {
    gxbench::Main(count, words);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "multiplexer: %s\n", failure.what());
    return 1;
  }
}
