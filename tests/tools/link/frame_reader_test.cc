#include "link/frame_reader.h"

#include <gtest/gtest.h>

#include <string>

#include "link/control_frames.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;

// Writes down what it is told, with the pieces of a payload joined.
class Story : public FrameReader::Handler {
 public:
  void OnFrame(const gxmod::FrameHeader& header) override {
    text_ += std::to_string(static_cast<int>(header.type)) + ":" + std::to_string(header.connection_id) + ":" +
             std::to_string(header.length) + "(";
  }
  void OnPayload(std::string_view piece) override {
    EXPECT_FALSE(piece.empty());
    text_ += piece;
  }
  void OnFrameEnd() override { text_ += ") "; }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

TEST(FrameReaderTest, FramesSurviveAnyCut) {
  const std::string wire =
      MakeFrame(ConnectionType::Data, 7, "hello") + MakeFrame(ConnectionType::Close, 7, "") +
      MakeFrame(static_cast<ConnectionType>(99), 0, "unknown") + MakeFrame(ConnectionType::Data, 8, "x");
  for (std::size_t cut = 1; cut <= wire.size(); ++cut) {
    Story story;
    FrameReader reader(&story);
    for (std::size_t at = 0; at < wire.size(); at += cut) reader.Feed(std::string_view(wire).substr(at, cut));
    EXPECT_EQ(story.text(), "2:7:5(hello) 3:7:0() 99:0:7(unknown) 2:8:1(x) ") << cut;
  }
}

TEST(FrameReaderTest, KnowsWhetherTheStreamEndedInsideAFrame) {
  const std::string wire = MakeFrame(ConnectionType::Data, 7, "hello");
  for (std::size_t length = 0; length <= wire.size(); ++length) {
    Story story;
    FrameReader reader(&story);
    reader.Feed(wire.substr(0, length));
    EXPECT_EQ(reader.AtFrameEnd(), length == 0 || length == wire.size()) << length;
  }
}

}  // namespace
}  // namespace gxtool
