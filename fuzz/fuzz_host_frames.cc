// The frames that gx-ssh reads for the module, from a peer that sends any bytes: the module gets exactly its
// own frames, whatever its read sizes, and none of the frames between the two tools. Impossible
// acknowledgements are ignored.
//
// An input is the module's read size, the number of bytes that arrive before the first read, and the stream.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "check.h"
#include "common/control_frames.h"
#include "common/line_pace.h"
#include "gx-ssh/plugin_input.h"

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
  void OnUrgent(const gxmod::FrameHeader& header, std::string_view payload) override {
    urgent.emplace_back(static_cast<int>(header.type), payload);
    pace_.OnSent(4096);
    if (header.type == gxtool::kPongFrame) pace_.OnReceived(gxtool::SentBefore(payload));
    const auto totals = gxtool::ReadAcknowledgement(payload);
    if (header.type == gxtool::kAcknowledgementFrame && totals) pace_.OnAcknowledgement(*totals);
    Check(pace_.view().under_way <= pace_.sent());
  }
  void OnAcknowledge(const gxtool::Acknowledgement& totals, bool) override {
    Check(totals.received >= told.received && totals.permitted >= told.permitted);
    Check(totals.permitted <= totals.received + gxtool::Receipts::kRoomBytes);
    told = totals;
  }

  Taken taken;
  Taken urgent;
  gxtool::Acknowledgement told;

 private:
  gxtool::LinePace pace_;
};

// The bytes that the module must get. An incomplete header at the end of the stream is dropped.
std::string Passed(std::string_view wire, Taken* taken, Taken* urgent) {
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
    const bool is_urgent = gxtool::Intake::IsUrgent(header.type);
    const bool has_all = is_urgent ? frame.size() == gxmod::kFrameHeaderBytes + header.length : is_whole;
    if (has_all) (is_urgent ? urgent : taken)->emplace_back(static_cast<int>(header.type), payload);
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
  PluginInput input(ends[1], stop, keeper, std::string_view(wire).substr(0, before), true);
  std::string got;
  std::string piece(1 + std::size_t{data[0]}, '\0');
  while (const std::size_t count = input.Read(piece.data(), piece.size())) got.append(piece, 0, count);
  close(ends[1]);

  Taken taken;
  Taken urgent;
  Check(got == Passed(wire, &taken, &urgent) && keeper.taken == taken && keeper.urgent == urgent);
  Check(keeper.told.received <= wire.size());
  Check(input.end_reason() == "end of the stream");
  return 0;
}
