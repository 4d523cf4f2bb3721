#include "common/frame_reader.h"

#include <algorithm>
#include <cstring>

namespace gxtool {

void FrameReader::Feed(std::string_view bytes) {
  while (!bytes.empty()) {
    std::size_t taken = 0;
    if (in_payload_) {
      taken = std::min<std::size_t>(bytes.size(), payload_left_);
      payload_left_ -= static_cast<std::uint32_t>(taken);
      handler_->OnPayload(bytes.substr(0, taken));
    } else if (header_filled_ == 0 && bytes.size() >= header_.size()) {
      taken = header_.size();
      BeginFrame(bytes.data());
    } else {
      taken = std::min(bytes.size(), header_.size() - header_filled_);
      std::memcpy(header_.data() + header_filled_, bytes.data(), taken);
      header_filled_ += taken;
      if (header_filled_ == header_.size()) BeginFrame(header_.data());
    }
    bytes.remove_prefix(taken);
    if (in_payload_ && payload_left_ == 0) {
      in_payload_ = false;
      handler_->OnFrameEnd();
    }
  }
}

void FrameReader::BeginFrame(const void* header) {
  const gxmod::FrameHeader decoded = gxmod::DecodeFrameHeader(header);
  header_filled_ = 0;
  in_payload_ = true;
  payload_left_ = decoded.length;
  handler_->OnFrame(decoded);
}

}  // namespace gxtool
