#include "common/control_frames.h"

#include <algorithm>
#include <cstring>

namespace gxtool {
namespace {

constexpr std::size_t kTotalBytes = sizeof(std::uint64_t);

// In the machine's byte order, which is little-endian.
void AppendTotal(std::uint64_t total, std::string* out) {
  char bytes[kTotalBytes];
  std::memcpy(bytes, &total, sizeof bytes);
  out->append(bytes, sizeof bytes);
}

std::uint64_t TotalAt(std::string_view bytes) {
  std::uint64_t total = 0;
  std::memcpy(&total, bytes.data(), std::min(bytes.size(), kTotalBytes));
  return total;
}

}  // namespace

std::string MakeAcknowledgement(const Acknowledgement& totals) {
  std::string payload;
  AppendTotal(totals.received, &payload);
  AppendTotal(totals.permitted, &payload);
  return MakeFrame(kAcknowledgementFrame, 0, payload);
}

std::optional<Acknowledgement> ReadAcknowledgement(std::string_view payload) {
  if (payload.size() < 2 * kTotalBytes) return std::nullopt;
  return Acknowledgement{TotalAt(payload), TotalAt(payload.substr(kTotalBytes))};
}

std::string PingPayload(std::uint64_t sent) {
  std::string payload;
  AppendTotal(sent, &payload);
  return payload;
}

std::uint64_t SentBefore(std::string_view ping_payload) { return TotalAt(ping_payload); }

std::string MakeFrame(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload) {
  std::string frame(gxmod::kFrameHeaderBytes, '\0');
  gxmod::EncodeFrameHeader({static_cast<std::uint32_t>(payload.size()), connection_id, type}, frame.data());
  return frame.append(payload);
}

}  // namespace gxtool
