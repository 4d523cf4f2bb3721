// The frames that the peer reads, from a module that sends any bytes. The peer connects only to targets and
// looks up only names that the allow-list permits. A permitted target echoes its data unchanged, tests and
// pings are answered, and the peer writes only whole frames of known types.
//
// An input is a byte of options and then the bytes of the stream. Two targets listen; the texts kPermitted and
// kForbidden in the input are replaced by their addresses, which have the same length.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <map>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "check.h"
#include "common/control_frames.h"
#include "common/frame_reader.h"
#include "common/ready_line.h"
#include "peer/peer.h"

using gxmod::ConnectionType;
using gxtool::Side;

namespace {

constexpr std::uint8_t kRaw = 1;
constexpr std::string_view kPermitted = "127.0.0.1:55555";
constexpr std::string_view kForbidden = "127.0.0.1:44444";
constexpr const char* kName = "near.example";  // permitted with any port, but it leads to this computer
constexpr std::size_t kTextBytes = 1024;       // the peer keeps this much of other payloads than Data
constexpr std::size_t kConnections = 4;        // at the same time
constexpr std::size_t kMostBytes = 16 * 1024;  // fits into the buffers of a socket pair

struct Frame {
  ConnectionType type{};
  std::uint32_t id = 0;
  std::string payload;

  bool operator==(const Frame&) const = default;
};

// Returns all whole frames; `*rest` gets the number of bytes after them.
std::vector<Frame> Parse(std::string_view wire, std::size_t* rest) {
  std::vector<Frame> frames;
  while (wire.size() >= gxmod::kFrameHeaderBytes) {
    const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(wire.data());
    const std::string_view behind = wire.substr(gxmod::kFrameHeaderBytes);
    if (behind.size() < header.length) break;
    frames.push_back({header.type, header.connection_id, std::string(behind.substr(0, header.length))});
    wire = behind.substr(header.length);
  }
  *rest = wire.size();
  return frames;
}

class FrameKeeper final : public gxtool::FrameReader::Handler {
 public:
  void OnFrame(const gxmod::FrameHeader& header) override { present = {header.type, header.connection_id, {}}; }
  void OnPayload(std::string_view piece) override { present.payload += piece; }
  void OnFrameEnd() override { frames.push_back(present); }

  Frame present;
  std::vector<Frame> frames;
};

// Adds the data of an incomplete frame, which the peer passes on at once.
void TakeCutData(std::string_view rest, std::vector<Frame>* frames) {
  if (rest.size() < gxmod::kFrameHeaderBytes) return;
  const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(rest.data());
  if (header.type != ConnectionType::Data) return;
  frames->push_back({header.type, header.connection_id, std::string(rest.substr(gxmod::kFrameHeaderBytes))});
}

// The reader finds the same frames in pieces of any size.
void CheckReader(std::string_view wire, std::size_t piece) {
  FrameKeeper keeper;
  gxtool::FrameReader reader(&keeper);
  for (std::size_t at = 0; at < wire.size(); at += piece) reader.Feed(wire.substr(at, piece));
  std::size_t rest = 0;
  Check(keeper.frames == Parse(wire, &rest) && reader.AtFrameEnd() == (rest == 0));
}

// Listens on a port of this computer.
class Target {
 public:
  Target() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // A port of five digits makes the address as long as the text that it replaces.
    for (int port = 20'000; port < 60'000; ++port) {
      address.sin_port = htons(static_cast<std::uint16_t>(port));
      if (bind(fd_, reinterpret_cast<sockaddr*>(&address), length) == 0) break;
    }
    Check(listen(fd_, 128) == 0);
    Check(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0);
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  ~Target() { close(fd_); }

  int fd() const { return fd_; }
  const std::string& address() const { return address_; }
  int Accept() const { return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK); }

 private:
  const int fd_;
  std::string address_;
};

// Echoes received bytes; closes a connection when the other side does.
class Echo {
 public:
  Echo() {
    Check(pipe(stop_) == 0);
    thread_ = std::thread([this] { Work(); });
  }
  ~Echo() {
    close(stop_[1]);
    thread_.join();
    close(stop_[0]);
  }
  const std::string& address() const { return target_.address(); }

 private:
  void Work() {
    std::vector<pollfd> waiting = {{stop_[0], POLLIN, 0}, {target_.fd(), POLLIN, 0}};
    while (poll(waiting.data(), waiting.size(), -1) >= 0 && waiting[0].revents == 0) {
      for (std::size_t i = 2; i < waiting.size(); ++i) {
        if (waiting[i].revents != 0 && !Serve(waiting[i].fd)) close(std::exchange(waiting[i].fd, -1));
      }
      std::erase_if(waiting, [](const pollfd& entry) { return entry.fd < 0; });
      if (waiting[1].revents == 0) continue;
      if (const int fd = target_.Accept(); fd >= 0) waiting.push_back({fd, POLLIN, 0});
    }
    for (std::size_t i = 2; i < waiting.size(); ++i) close(waiting[i].fd);
  }

  static bool Serve(int fd) {
    char bytes[4096];
    const ssize_t count = recv(fd, bytes, sizeof bytes, 0);
    return count > 0 && send(fd, bytes, static_cast<std::size_t>(count), MSG_NOSIGNAL) == count;
  }

  Target target_;
  int stop_[2] = {-1, -1};
  std::thread thread_;
};

void Replace(std::string* text, std::string_view from, std::string_view to) {
  Check(from.size() == to.size());
  for (std::size_t at = 0; (at = text->find(from, at)) != std::string::npos;) text->replace(at, to.size(), to);
}

gxtool::LookupResult LookUp(const std::string& host) {
  Check(host == kName);
  return {{"127.0.0.1"}, {}};
}

void CheckLine(const std::string& line) {
  Check(std::all_of(line.begin(), line.end(), [](char c) { return c >= ' ' && c <= '~'; }));
}

class Fixture {
 public:
  Fixture() { std::signal(SIGPIPE, SIG_IGN); }

  void Run(std::uint8_t options, std::string wire) {
    Replace(&wire, kPermitted, echo_.address());
    Replace(&wire, kForbidden, forbidden_.address());
    const bool raw = (options & kRaw) != 0;
    std::string answer = Converse(raw, wire);
    Check(forbidden_.Accept() < 0);
    std::string_view frames = wire;
    if (!raw) {
      const std::string ready = gxtool::Greeting(Side::kPeer);
      Check(answer.starts_with(ready));
      answer.erase(0, ready.size());
      gxtool::ReadyLineFinder finder(Side::kHost);
      frames.remove_prefix(finder.Feed(frames));
      if (finder.state() != gxtool::ReadyLineFinder::State::kFound) return Check(answer.empty());
    }
    CheckReader(frames, 1 + options / 2);
    std::size_t rest = 0;
    std::vector<Frame> asked = Parse(frames, &rest);
    TakeCutData(frames.substr(frames.size() - rest), &asked);
    const std::vector<Frame> answered = Parse(answer, &rest);
    Check(rest == 0);
    CheckAnswers(asked, answered);
    CheckData(asked, answered);
  }

 private:
  // Returns the peer's output for this input.
  std::string Converse(bool raw, const std::string& wire) {
    int ends[2];
    Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0);
    Check(write(ends[0], wire.data(), wire.size()) == static_cast<ssize_t>(wire.size()));
    shutdown(ends[0], SHUT_WR);
    gxtool::PeerOptions options;
    std::string why;
    options.allow = gxtool::AllowList();
    for (const std::string& entry : {echo_.address(), std::string(kName) + ":*"}) {
      Check(options.allow.Add(entry, &why));
    }
    options.raw = raw;
    constexpr auto kLongest = std::chrono::seconds(30);  // the targets end by themselves
    options.end_times = {kLongest, kLongest, kLongest};
    options.max_connections = kConnections;
    options.names.lookup = LookUp;
    options.log = [](gxtool::LogLevel, const std::string& line) { CheckLine(line); };
    std::string answer;
    std::thread reader([&answer, fd = ends[0]] {
      char bytes[4096];
      for (ssize_t count; (count = read(fd, bytes, sizeof bytes)) > 0;) {
        answer.append(bytes, static_cast<std::size_t>(count));
      }
    });
    gxtool::Peer(options, ends[1], ends[1]).Run();
    close(ends[1]);
    reader.join();
    close(ends[0]);
    return answer;
  }

  static void CheckTotals(std::string_view payload, gxtool::Acknowledgement* told) {
    const auto totals = gxtool::ReadAcknowledgement(payload);
    Check(totals && totals->received >= told->received && totals->permitted >= told->permitted);
    Check(totals->received <= kMostBytes);
    *told = *totals;
  }

  static void CheckAnswers(const std::vector<Frame>& asked, const std::vector<Frame>& answered) {
    std::vector<std::string> tests;
    std::vector<std::string> pings;
    std::map<std::uint32_t, int> connects;
    std::uint64_t unneeded = 0;  // permitted bytes of connection 0: answers to fill frames, and an echo
    for (const Frame& frame : asked) {
      if (frame.type == ConnectionType::TestChannel) tests.push_back(frame.payload.substr(0, kTextBytes));
      if (frame.type == gxtool::kPingFrame && frame.payload.size() == gxtool::kPingBytes)
        pings.push_back(frame.payload);
      if (frame.type == gxtool::kFillFrame) unneeded += gxtool::ReadFill(frame.payload).value_or(0);
      if (frame.type == ConnectionType::Data && frame.id == 0) unneeded += frame.payload.size();
      if (frame.type == ConnectionType::Connect) ++connects[frame.id];
    }
    gxtool::Acknowledgement told;
    std::vector<std::string> test_answers;
    std::vector<std::string> pongs;
    for (const Frame& frame : answered) {
      if (frame.type == ConnectionType::TestRespond) {
        test_answers.push_back(frame.payload.substr(gxmod::kTestRespondHeaderBytes));
      } else if (frame.type == gxtool::kPongFrame) {
        pongs.push_back(frame.payload);
      } else if (frame.type == gxtool::kAcknowledgementFrame) {
        CheckTotals(frame.payload, &told);
      } else if (frame.type == ConnectionType::Close) {
        Check(connects[frame.id]-- > 0);
      } else if (frame.type == ConnectionType::Data && frame.id == 0) {
        Check(frame.payload.size() <= unneeded);
        unneeded -= frame.payload.size();
      } else if (frame.type == ConnectionType::Data || frame.type == gxtool::kEndOfInputFrame) {
        Check(connects[frame.id] > 0);
      } else {
        Check(frame.type == gxtool::kGoodbyeFrame && &frame == &answered.back());
      }
    }
    Check(test_answers == tests && pongs == pings);
  }

  void CheckData(const std::vector<Frame>& asked, const std::vector<Frame>& answered) const {
    struct Traffic {
      int connects = 0;
      bool permitted = false;
      bool ended = false;
      std::string sent;
      std::string received;
    };
    std::map<std::uint32_t, Traffic> all;
    std::size_t connects = 0;
    for (const Frame& frame : asked) {
      Traffic& traffic = all[frame.id];
      if (frame.type == ConnectionType::Connect) {
        ++connects;
        ++traffic.connects;
        traffic.permitted = frame.payload == echo_.address();
      } else if (frame.type == ConnectionType::Data && traffic.connects > 0) {
        traffic.sent += frame.payload;
      } else if (frame.type == ConnectionType::Close || frame.type == gxtool::kEndOfInputFrame) {
        traffic.ended = true;
      }
    }
    for (const Frame& frame : answered) {
      if (frame.type == ConnectionType::Data) all[frame.id].received += frame.payload;
    }
    for (const auto& [id, traffic] : all) {
      if (traffic.connects != 1 || id == 0) continue;
      Check(traffic.sent.starts_with(traffic.received));
      if (traffic.permitted && !traffic.ended && connects <= kConnections)
        Check(traffic.received == traffic.sent);
    }
  }

  Echo echo_;
  Target forbidden_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Fixture fixture;
  if (size == 0 || size > kMostBytes) return 0;
  fixture.Run(data[0], Text(data + 1, size - 1));
  return 0;
}
