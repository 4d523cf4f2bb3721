#include "link/control_frames.h"

namespace gxtool {

std::string MakeFrame(gxmod::ConnectionType type, std::uint32_t connection_id, std::string_view payload) {
  std::string frame(gxmod::kFrameHeaderBytes, '\0');
  gxmod::EncodeFrameHeader({static_cast<std::uint32_t>(payload.size()), connection_id, type}, frame.data());
  return frame.append(payload);
}

}  // namespace gxtool
