#include "common/ready_line.h"

#include <gtest/gtest.h>

#include "common/escape.h"

namespace gxtool {
namespace {

using State = ReadyLineFinder::State;

TEST(ReadyLineTest, GivesUpAfterTooMuchNoise) {
  ReadyLineFinder finder(Side::kPeer);
  EXPECT_EQ(finder.Feed(std::string(kNoiseBytes - 4, 'x')), kNoiseBytes - 4);
  EXPECT_EQ(finder.state(), State::kSearching);
  EXPECT_EQ(finder.Feed("\nlast words"), 4U);
  EXPECT_EQ(finder.state(), State::kTooMuchNoise);
  EXPECT_EQ(finder.noise(), std::string(kQuoteBytes - 4, 'x') + "\nlas");
}

TEST(ReadyLineTest, TellsTheFeaturesOfTheOtherSide) {
  ReadyLineFinder finder(Side::kPeer);
  finder.Feed("GX-SSH-HOST-CAN flow-control\nGX-SSH-PEER-CAN later unix-targets\n" + ReadyLine(Side::kPeer));
  EXPECT_EQ(finder.state(), State::kFound);
  EXPECT_EQ(finder.features(), (Features{.flow_control = false, .unix_targets = true}));
}

}  // namespace
}  // namespace gxtool
