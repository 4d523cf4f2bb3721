// The judges of the scenarios must see what they are there to see.
#include "support/far_side.h"

#include <gtest/gtest.h>

namespace {

using gxmod::ConnectionType;
using gxtest::Encode;
using gxtest::FarSide;
using gxtest::Pattern;
using gxtest::PluginStream;

void Write(PluginStream& stream, const std::string& bytes) {
  unsigned written = 0;
  stream.Write(bytes.data(), static_cast<unsigned>(bytes.size()), &written, 0);
}

TEST(FarSideTest, SeesWhatAModuleMustNotDo) {
  const std::string connect = Encode({ConnectionType::Connect, 1, "h:1"});
  const std::string close = Encode({ConnectionType::Close, 1, ""});
  const std::string first = Encode({ConnectionType::Data, 1, Pattern(96, 5)});
  const std::string second = Encode({ConnectionType::Data, 1, Pattern(96, 5, 96)});
  const struct {
    std::string wire;
    std::size_t closes;
    const char* fault;  // a part of what it says; empty: there is none
  } cases[] = {
      {connect + first + second + close, 1, ""},      {connect + second + close, 1, "lost"},
      {connect + first + first + close, 1, "twice"},  {connect + connect + close, 1, "a second Connect"},
      {connect + close + close, 2, "a second Close"}, {connect + close + first + close, 2, "outside the life"},
      {first + close, 1, "outside the life"},
  };
  for (const auto& c : cases) {
    const CRefObj<PluginStream> stream(new PluginStream);
    const FarSide far(stream);
    Write(*stream, c.wire);
    EXPECT_TRUE(far.WaitForCloses(c.closes));
    const std::string fault = far.Total().fault;
    EXPECT_NE(fault.find(c.fault), fault.npos) << fault;
    EXPECT_EQ(fault.empty(), std::string(c.fault).empty()) << fault;
  }
}

TEST(FarSideTest, StreamSeesAForeignHandInsideAFrame) {
  const std::string frame = Encode({ConnectionType::Data, 1, "payload"});
  for (std::size_t cut = 0; cut <= frame.size(); ++cut) {
    const CRefObj<PluginStream> stream(new PluginStream);
    std::thread([&] { Write(*stream, frame.substr(0, cut)); }).join();
    Write(*stream, frame.substr(cut) + frame);
    EXPECT_EQ(stream->Overlapped(), cut != 0 && cut != frame.size()) << cut;
  }
}

}  // namespace
