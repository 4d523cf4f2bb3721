// Splits a byte stream into frames, for pieces of any size. Payloads are passed on without a copy, so memory
// does not depend on a frame's length. Threads: one at a time.
#ifndef GX_COMMON_FRAME_READER_H
#define GX_COMMON_FRAME_READER_H

#include <gxmod/frames.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace gxtool {

class FrameReader {
 public:
  // For each frame: one OnFrame, any number of OnPayload whose sizes add up to the frame's length, one
  // OnFrameEnd.
  class Handler {
   public:
    virtual void OnFrame(const gxmod::FrameHeader& header) = 0;
    // `piece` is not empty. It is valid as long as the bytes given to Feed.
    virtual void OnPayload(std::string_view piece) = 0;
    virtual void OnFrameEnd() = 0;

   protected:
    ~Handler() = default;
  };

  // `handler` is borrowed and outlives the reader.
  explicit FrameReader(Handler* handler) : handler_(handler) {}

  // Consumes all of `bytes`.
  void Feed(std::string_view bytes);

  // False when the bytes so far end inside a frame.
  bool AtFrameEnd() const { return header_filled_ == 0 && !in_payload_; }

 private:
  void BeginFrame(const void* header);

  Handler* const handler_;
  std::array<char, gxmod::kFrameHeaderBytes> header_{};  // a header that arrived in pieces
  std::size_t header_filled_ = 0;
  bool in_payload_ = false;
  std::uint32_t payload_left_ = 0;
};

}  // namespace gxtool

#endif  // GX_COMMON_FRAME_READER_H
