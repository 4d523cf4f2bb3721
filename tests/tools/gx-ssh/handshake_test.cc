#include "gx-ssh/handshake.h"

#include <gtest/gtest.h>

#include "tools/io.h"

namespace gxtool {
namespace {

// The carrier is given a moment for its last words then, in which the far side may still say that it is ready.
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
