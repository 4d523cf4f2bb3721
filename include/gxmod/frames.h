// The frame format on the plugin stream. The module and every far side use it.
//
// A frame is a header of 16 bytes, followed by `length` bytes of payload:
//
//   offset  size  field
//        0     4  reserved, written as 0, never checked
//        4     4  length of the payload in bytes
//        8     4  id of the connection; 0 for frames that belong to none
//       12     1  ConnectionType
//       13     3  reserved, written as 0, never checked
//       16     -  payload
//
// Integers are in the byte order of the machine, which is little-endian on every supported one.
// All functions here are pure functions on the caller's memory: any thread may call them, and ownership stays
// with the caller.
#ifndef GXMOD_FRAMES_H
#define GXMOD_FRAMES_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace gxmod {

inline constexpr std::size_t kFrameHeaderBytes = 16;       // in front of every payload
inline constexpr std::size_t kTestRespondHeaderBytes = 8;  // in front of the message of a test response

// The kind of a frame.
enum class ConnectionType : std::uint8_t {
  Connect = 1,      // module to far side: open; payload: the target as host:port, no terminator
  Data = 2,         // both directions: the payload is data of the connection
  Close = 3,        // both directions: the connection has ended; no payload
  TestChannel = 4,  // module to far side, id 0: the payload is the test's text
  TestRespond = 5,  // far side to module: the payload is a TestResponse
  ChannelList = 6,  // both directions, id 0: the payload is the text of the channel list
};

// The used fields of a header.
struct FrameHeader {
  std::uint32_t length = 0;         // payload bytes
  std::uint32_t connection_id = 0;  // 0: the frame belongs to no connection
  ConnectionType type{};  // may hold any value on receipt; frames of unknown type are read in full and dropped
};

// Writes the header's kFrameHeaderBytes bytes to `out`.
inline void EncodeFrameHeader(const FrameHeader& header, void* out) {
  unsigned char* bytes = static_cast<unsigned char*>(out);
  std::memset(bytes, 0, kFrameHeaderBytes);
  std::memcpy(bytes + 4, &header.length, sizeof header.length);
  std::memcpy(bytes + 8, &header.connection_id, sizeof header.connection_id);
  bytes[12] = static_cast<unsigned char>(header.type);
}

// Reads a header from the kFrameHeaderBytes bytes at `in`.
inline FrameHeader DecodeFrameHeader(const void* in) {
  const unsigned char* bytes = static_cast<const unsigned char*>(in);
  FrameHeader header;
  std::memcpy(&header.length, bytes + 4, sizeof header.length);
  std::memcpy(&header.connection_id, bytes + 8, sizeof header.connection_id);
  header.type = static_cast<ConnectionType>(bytes[12]);
  return header;
}

// The payload of a TestRespond frame: status (32 bits), offset and length of a message (16 bits each; the
// offset counts from the start of the payload), then the bytes that contain the message.
struct TestResponse {
  std::uint32_t status = 0;     // 0: the channel works
  const char* text = nullptr;   // points into the payload; not terminated
  std::size_t text_length = 0;  // bytes up to the first NUL inside the range
};

// Returns false, with `out` untouched, when the payload is too short or the message lies outside it.
inline bool DecodeTestResponse(const void* payload, std::size_t length, TestResponse* out) {
  if (payload == nullptr || length < kTestRespondHeaderBytes) return false;
  const char* bytes = static_cast<const char*>(payload);
  std::uint16_t text_offset = 0;
  std::uint16_t text_length = 0;
  std::memcpy(&text_offset, bytes + 4, sizeof text_offset);
  std::memcpy(&text_length, bytes + 6, sizeof text_length);
  // The sum may exceed 16 bits.
  if (std::size_t{text_offset} + text_length > length) return false;
  std::memcpy(&out->status, bytes, sizeof out->status);
  out->text = bytes + text_offset;
  const void* nul = text_length == 0 ? nullptr : std::memchr(out->text, '\0', text_length);
  out->text_length =
      nul == nullptr ? text_length : static_cast<std::size_t>(static_cast<const char*>(nul) - out->text);
  return true;
}

// Writes a response whose message directly follows the fixed fields. `out` must have room for
// kTestRespondHeaderBytes + `text_length` bytes. Returns that number.
inline std::size_t EncodeTestResponse(std::uint32_t status, const char* text, std::uint16_t text_length,
                                      void* out) {
  char* bytes = static_cast<char*>(out);
  const std::uint16_t text_offset = kTestRespondHeaderBytes;
  std::memcpy(bytes, &status, sizeof status);
  std::memcpy(bytes + 4, &text_offset, sizeof text_offset);
  std::memcpy(bytes + 6, &text_length, sizeof text_length);
  if (text_length != 0) std::memcpy(bytes + kTestRespondHeaderBytes, text, text_length);
  return kTestRespondHeaderBytes + text_length;
}

}  // namespace gxmod

#endif  // GXMOD_FRAMES_H
