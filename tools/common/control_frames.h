// Frames that gx-ssh and gx-ssh-peer exchange in addition to those of gxmod/frames.h. Their connection id is 0
// unless stated otherwise. gx-ssh removes them before the module sees them; the module would drop them as
// unknown types.
#ifndef GX_COMMON_CONTROL_FRAMES_H
#define GX_COMMON_CONTROL_FRAMES_H

#include <gxmod/frames.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gxtool {

inline constexpr auto kPingFrame =
    static_cast<gxmod::ConnectionType>(0xF0);  // payload: kPingBytes bytes, returned unchanged
inline constexpr auto kPongFrame = static_cast<gxmod::ConnectionType>(0xF1);  // payload: the ping's
inline constexpr auto kGoodbyeFrame =
    static_cast<gxmod::ConnectionType>(0xF2);  // payload: reason, ASCII; the last frame, closes all connections

// gx-ssh to gx-ssh-peer: the input of that connection has ended, while its target may continue to send. In the
// other direction: the target has received the whole input and its end. No payload.
inline constexpr auto kEndOfInputFrame = static_cast<gxmod::ConnectionType>(0xF3);

// gx-ssh-peer to gx-ssh, before the Close of that connection: the target reset the connection (no payload), or
// the connection was never opened (payload: the reason, ASCII).
inline constexpr auto kResetFrame = static_cast<gxmod::ConnectionType>(0xF4);
inline constexpr std::size_t kReasonBytes = 200;  // at most

// Both directions: what the sender has received so far, see Acknowledgement.
inline constexpr auto kAcknowledgementFrame = static_cast<gxmod::ConnectionType>(0xF5);

// gx-ssh to gx-ssh-peer, which has announced Features::fill: send that many bytes (FillPayload) to measure the
// line. Replaces the rest of an earlier order. The answer is Data frames of connection 0 with dummy bytes.
// gx-ssh-peer sends them behind all other data, and at most kMostFillBytes for one order.
inline constexpr auto kFillFrame = static_cast<gxmod::ConnectionType>(0xF6);
inline constexpr std::size_t kFillPayloadBytes = 8;
inline constexpr std::uint64_t kMostFillBytes = 16 * 1024 * 1024;

// A pong is also an acknowledgement: the payload is the number of bytes that were sent before the ping.
inline constexpr std::size_t kPingBytes = 8;

// True for the types of this header.
constexpr bool IsControlFrame(gxmod::ConnectionType type) { return type >= kPingFrame && type <= kFillFrame; }

// Totals of bytes since the ready line. They count all frames except those of this header, including frame
// headers.
struct Acknowledgement {
  std::uint64_t received = 0;
  std::uint64_t permitted = 0;  // the receiver accepts up to this total

  friend bool operator==(const Acknowledgement&, const Acknowledgement&) = default;
};

std::string MakeAcknowledgement(const Acknowledgement& totals);
// Returns nothing for an invalid payload. Ignores bytes after the totals, for later releases.
std::optional<Acknowledgement> ReadAcknowledgement(std::string_view payload);

// The payload of a ping.
std::string PingPayload(std::uint64_t sent);
// The number of bytes that a pong with that payload acknowledges.
std::uint64_t SentBefore(std::string_view ping_payload);

std::string FillPayload(std::uint64_t bytes);
// At most kMostFillBytes; nothing for an invalid payload.
std::optional<std::uint64_t> ReadFill(std::string_view payload);

// A whole frame: header and payload.
std::string MakeFrame(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload);

}  // namespace gxtool

#endif  // GX_COMMON_CONTROL_FRAMES_H
