#include "link/ready_line.h"

#include <gtest/gtest.h>

#include "link/escape.h"

namespace gxtool {
namespace {

using State = ReadyLineFinder::State;

TEST(ReadyLineTest, FoundBehindNoiseHoweverItIsCut) {
  const std::string noise = "Last login: today\r\n$ GX-SSH-PEER 1\nGX-SSH-PEER 1 \nGX-SSH-PEER x\n\n";
  const std::string wire = noise + ReadyLine(Side::kPeer) + "frames";
  for (std::size_t cut = 1; cut <= wire.size(); ++cut) {
    ReadyLineFinder finder(Side::kPeer);
    std::size_t taken = 0;
    while (finder.state() == State::kSearching) {
      ASSERT_LT(taken, wire.size());
      taken += finder.Feed(std::string_view(wire).substr(taken, cut));
    }
    EXPECT_EQ(finder.state(), State::kFound);
    EXPECT_EQ(wire.substr(taken), "frames") << cut;
  }
}

TEST(ReadyLineTest, GivesUpAfterTooMuchNoise) {
  ReadyLineFinder finder(Side::kPeer);
  EXPECT_EQ(finder.Feed(std::string(kNoiseBytes - 4, 'x')), kNoiseBytes - 4);
  EXPECT_EQ(finder.state(), State::kSearching);
  EXPECT_EQ(finder.Feed("\nlast words"), 4U);
  EXPECT_EQ(finder.state(), State::kTooMuchNoise);
  EXPECT_EQ(finder.noise(), std::string(kQuoteBytes - 4, 'x') + "\nlas");
}

}  // namespace
}  // namespace gxtool
