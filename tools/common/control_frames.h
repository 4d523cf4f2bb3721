// Frames that gx-ssh and gx-ssh-peer exchange beside those of gxmod/frames.h. Their connection id is 0 unless
// told otherwise. The module drops unknown types, so a far side may send them; gx-ssh keeps them away from the
// module all the same.
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
    static_cast<gxmod::ConnectionType>(0xF0);  // payload: kPingBytes opaque bytes
inline constexpr auto kPongFrame = static_cast<gxmod::ConnectionType>(0xF1);  // payload: that of the ping
inline constexpr auto kGoodbyeFrame =
    static_cast<gxmod::ConnectionType>(0xF2);  // payload: reason, ASCII; comes last and closes every connection

// gx-ssh to gx-ssh-peer: no more bytes will come for that connection id, but its target may go on sending.
// Back: the target has taken all of them and knows. No payload.
inline constexpr auto kEndOfInputFrame = static_cast<gxmod::ConnectionType>(0xF3);

// gx-ssh-peer to gx-ssh, in front of the Close of that connection id: its target's connection broke, without a
// payload, or was never opened, with the reason in ASCII.
inline constexpr auto kResetFrame = static_cast<gxmod::ConnectionType>(0xF4);
inline constexpr std::size_t kReasonBytes = 200;  // at most

// Either way: what its sender has received so far, see Acknowledgement.
inline constexpr auto kAcknowledgementFrame = static_cast<gxmod::ConnectionType>(0xF5);

// A pong stands for an acknowledgement too, so the payload is how many bytes had been sent before the ping.
inline constexpr std::size_t kPingBytes = 8;

// True for the types of this header.
constexpr bool IsControlFrame(gxmod::ConnectionType type) {
  return type >= kPingFrame && type <= kAcknowledgementFrame;
}

// Totals of bytes since the ready line. Counted are all frames but those of this header, with their headers.
struct Acknowledgement {
  std::uint64_t received = 0;
  std::uint64_t permitted = 0;  // there is room for so many

  friend bool operator==(const Acknowledgement&, const Acknowledgement&) = default;
};

std::string MakeAcknowledgement(const Acknowledgement& totals);
// Nothing: `payload` is none. What follows the totals is left for later releases.
std::optional<Acknowledgement> ReadAcknowledgement(std::string_view payload);

// The payload of a ping.
std::string PingPayload(std::uint64_t sent);
// How many bytes the pong with that payload acknowledges.
std::uint64_t SentBefore(std::string_view ping_payload);

// A whole frame, header and payload.
std::string MakeFrame(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload);

}  // namespace gxtool

#endif  // GX_COMMON_CONTROL_FRAMES_H
