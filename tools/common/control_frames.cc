#include "common/control_frames.h"

#include <algorithm>
#include <cstring>

namespace gxtool {
namespace {

constexpr std::size_t kTotalBytes = sizeof(std::uint64_t);

// In the machine's byte order, which is little-endian.
std::string TotalText(std::uint64_t total) {
  char bytes[kTotalBytes];
  std::memcpy(bytes, &total, sizeof bytes);
  return {bytes, sizeof bytes};
}

std::uint64_t TotalAt(std::string_view bytes) {
  std::uint64_t total = 0;
  std::memcpy(&total, bytes.data(), std::min(bytes.size(), kTotalBytes));
  return total;
}

}  // namespace

std::string MakeAcknowledgement(const Acknowledgement& totals) {
  return MakeFrame(kAcknowledgementFrame, 0, TotalText(totals.received) + TotalText(totals.permitted));
}

std::optional<Acknowledgement> ReadAcknowledgement(std::string_view payload) {
  if (payload.size() < 2 * kTotalBytes) return std::nullopt;
  return Acknowledgement{TotalAt(payload), TotalAt(payload.substr(kTotalBytes))};
}

std::string PingPayload(std::uint64_t sent) { return TotalText(sent); }

std::uint64_t SentBefore(std::string_view ping_payload) { return TotalAt(ping_payload); }

std::string FillPayload(std::uint64_t bytes) { return TotalText(bytes); }

std::optional<std::uint64_t> ReadFill(std::string_view payload) {
  if (payload.size() != kFillPayloadBytes) return std::nullopt;
  return std::min(TotalAt(payload), kMostFillBytes);
}

std::string MakeFrame(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload) {
  std::string frame(gxmod::kFrameHeaderBytes, '\0');
  gxmod::EncodeFrameHeader({static_cast<std::uint32_t>(payload.size()), connection_id, type}, frame.data());
  return frame.append(payload);
}

}  // namespace gxtool
