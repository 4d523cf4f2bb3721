#include "gxmod/frames.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

namespace gxmod {
namespace {

TEST(FramesTest, HeaderIsSixteenBytesAsDocumented) {
  std::array<unsigned char, kFrameHeaderBytes + 1> wire;
  wire.fill(0xEE);
  EncodeFrameHeader({0x04030201, 0x14131211, ConnectionType::Close}, wire.data());
  const std::array<unsigned char, kFrameHeaderBytes + 1> expected{
      0, 0, 0, 0, 1, 2, 3, 4, 0x11, 0x12, 0x13, 0x14, 3, 0, 0, 0, /*not ours*/ 0xEE};
  EXPECT_EQ(wire, expected);
  wire.fill(0xFF);  // the reserved bytes count for nothing
  wire[12] = 200;
  const FrameHeader header = DecodeFrameHeader(wire.data());
  EXPECT_EQ(header.length, 0xFFFFFFFFu);
  EXPECT_EQ(header.connection_id, 0xFFFFFFFFu);
  EXPECT_EQ(static_cast<int>(header.type), 200);
}

std::string Respond(std::uint16_t offset, std::uint16_t length, const std::string& rest) {
  const std::uint32_t status = 7;
  std::string payload(kTestRespondHeaderBytes, '\0');
  std::memcpy(payload.data(), &status, 4);
  std::memcpy(payload.data() + 4, &offset, 2);
  std::memcpy(payload.data() + 6, &length, 2);
  return payload + rest;
}

// The text of a decoded response, or "dropped". The payload lies in a block of exactly its size, so that the
// address sanitizer sees a read beyond it.
std::string Decoded(const std::string& payload) {
  const std::vector<char> exact(payload.begin(), payload.end());
  TestResponse response;
  if (!DecodeTestResponse(exact.data(), exact.size(), &response)) return "dropped";
  EXPECT_EQ(response.status, 7u);
  return std::string(response.text, response.text_length);
}

TEST(FramesTest, TestResponsesAreCheckedBeforeTheyAreRead) {
  const struct {
    std::string payload;
    std::string text;
  } cases[] = {
      {Respond(9, 2, "-ok-"), "ok"},
      {Respond(8, 4, std::string("a\0b\0", 4)), "a"},
      {Respond(8, 0, ""), ""},
      {Respond(8, 3, "ok"), "dropped"},
      {Respond(0xFFF8, 0x0010, "their 16-bit sum is 8"), "dropped"},
      {Respond(0, 0, "").substr(0, 7), "dropped"},
      {"", "dropped"},
  };
  for (const auto& c : cases) EXPECT_EQ(Decoded(c.payload), c.text) << testing::PrintToString(c.payload);
  EXPECT_FALSE(DecodeTestResponse(nullptr, 8, nullptr));
}

}  // namespace
}  // namespace gxmod
