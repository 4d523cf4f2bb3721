#include "gx-ssh/handshake.h"

#include <gtest/gtest.h>

#include "tools/kit.h"

namespace gxtool {
namespace {

// When the time is over the carrier still has a moment for its last words. A far side that becomes ready in
// that moment is too late.
TEST(HandshakeTest, ReadyAfterItsTimeIsNotReady) {
  asio::io_context io;
  auto [ours, theirs] = MakeSocketPair();
  std::string story;
  Handshake handshake(io, Duplicate(ours.get()), {}, ours.get(), std::chrono::milliseconds(1),
                      {[&](const Descriptor&, const std::string&, Features) { story += "ready"; },
                       [&](const std::string&) { story += "failed"; }});
  while (story.empty()) io.run_one_for(kPatience);
  WriteAll(theirs.get(), ReadyLine(Side::kPeer));
  theirs.Reset();
  while (io.run_one_for(kPatience) > 0) {
  }
  EXPECT_EQ(story, "failed");
}

}  // namespace
}  // namespace gxtool
