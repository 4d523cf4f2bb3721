// The frames that gx-ssh reads for the module, from a peer that sends whatever it likes: the module gets its
// own to the byte, however it asks for them, and nothing of those that the two tools keep between them.
//
// An input is how much the module reads at a time, how much had come before the reading began, and the stream.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "check.h"
#include "gx-ssh/plugin_input.h"
#include "link/control_frames.h"

using gxtool::PluginInput;

namespace {

constexpr std::size_t kMostBytes = 16 * 1024;  // fits into the buffer of a socket

using Taken = std::vector<std::pair<int, std::string>>;  // types and payloads

class Keeper final : public PluginInput::Handler {
 public:
  bool Passes(const gxmod::FrameHeader& header) override { return !gxtool::IsControlFrame(header.type); }
  void OnTaken(const gxmod::FrameHeader& header, std::string_view payload) override {
    taken.emplace_back(static_cast<int>(header.type), payload);
  }

  Taken taken;
};

// What the module has to get. The beginning of a header at the end of the stream says nothing to anybody.
std::string Passed(std::string_view wire, Taken* taken) {
  std::string passed;
  while (wire.size() >= gxmod::kFrameHeaderBytes) {
    const gxmod::FrameHeader header = gxmod::DecodeFrameHeader(wire.data());
    const std::string_view frame = wire.substr(0, gxmod::kFrameHeaderBytes + header.length);
    wire.remove_prefix(frame.size());
    if (!gxtool::IsControlFrame(header.type)) {
      passed += frame;
      continue;
    }
    const std::string_view payload = frame.substr(gxmod::kFrameHeaderBytes, PluginInput::kTakenPayloadBytes);
    const bool is_whole =
        payload.size() == std::min<std::size_t>(header.length, PluginInput::kTakenPayloadBytes);
    if (is_whole) taken->emplace_back(static_cast<int>(header.type), payload);
  }
  return passed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2 || size > kMostBytes) return 0;
  const std::string wire = Text(data + 2, size - 2);
  const std::size_t before = std::min<std::size_t>(data[1], wire.size());
  int ends[2];
  Check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
  Check(write(ends[0], &wire[before], wire.size() - before) == static_cast<ssize_t>(wire.size() - before));
  close(ends[0]);

  const gxtool::StopSignal stop;
  Keeper keeper;
  PluginInput input(ends[1], stop, keeper, std::string_view(wire).substr(0, before));
  std::string got;
  std::string piece(1 + std::size_t{data[0]}, '\0');
  while (const std::size_t count = input.Read(piece.data(), piece.size())) got.append(piece, 0, count);
  close(ends[1]);

  Taken taken;
  Check(got == Passed(wire, &taken) && keeper.taken == taken);
  Check(input.end_reason() == "end of the stream");
  return 0;
}
