#include "common/ready_line.h"

#include <algorithm>
#include <sstream>

#include "common/escape.h"

namespace gxtool {
namespace {

constexpr std::size_t kLineBytes = 256;  // longer lines are noise

struct FeatureWord {
  std::string_view word;
  bool Features::*feature;
};
constexpr FeatureWord kFeatureWords[] = {{"flow-control", &Features::flow_control},
                                         {"unix-targets", &Features::unix_targets},
                                         {"fill", &Features::fill}};

std::string_view Name(Side side) { return side == Side::kHost ? "GX-SSH-HOST " : "GX-SSH-PEER "; }
std::string_view FeaturesName(Side side) {
  return side == Side::kHost ? "GX-SSH-HOST-CAN " : "GX-SSH-PEER-CAN ";
}

}  // namespace

std::string ReadyLine(Side side) { return std::string(Name(side)) + std::to_string(kProtocolVersion) + '\n'; }

std::string Greeting(Side side) {
  std::string words;
  for (const auto& [word, feature] : kFeatureWords) {
    if (kOwnFeatures.*feature) words += std::string(word) + ' ';
  }
  if (words.empty()) return ReadyLine(side);
  words.back() = '\n';
  return std::string(FeaturesName(side)) + words + ReadyLine(side);
}

ReadyLineFinder::ReadyLineFinder(Side other)
    : features_name_(FeaturesName(other)),
      expected_(ReadyLine(other)),
      own_(ReadyLine(other == Side::kHost ? Side::kPeer : Side::kHost)) {}

std::size_t ReadyLineFinder::Feed(std::string_view bytes) {
  std::size_t taken = 0;
  while (taken < bytes.size() && state_ == State::kSearching) TakeByte(bytes[taken++]);
  return taken;
}

void ReadyLineFinder::TakeByte(char byte) {
  if (line_.size() < kLineBytes) line_ += byte;
  const std::size_t length = line_.size();
  const bool tells_features = byte == '\n' && line_.starts_with(features_name_);
  if (byte == '\n') JudgeLine();
  if (state_ == State::kFound || tells_features) {
    noise_.resize(noise_.size() - std::min(noise_.size(), length - 1));
    return;
  }
  if (noise_.size() == kQuoteBytes) noise_.erase(0, 1);
  noise_ += byte;
  if (++skipped_ == kNoiseBytes && state_ == State::kSearching) state_ = State::kTooMuchNoise;
}

void ReadyLineFinder::JudgeLine() {
  std::string line;
  line.swap(line_);
  if (line == expected_) {
    state_ = State::kFound;
    return;
  }
  if (line.starts_with(features_name_)) TakeFeatures(std::string_view(line).substr(features_name_.size()));
  const bool carriage_return = line.size() > 1 && line[line.size() - 2] == '\r';
  if (carriage_return) line.erase(line.size() - 2, 1);
  if (line == own_) echoed_ = true;
  if (line == expected_) state_ = State::kNotClean;
  if (state_ != State::kSearching) return;

  const std::size_t name_length = expected_.find(' ') + 1;
  if (line.size() < name_length + 2 || line.compare(0, name_length, expected_, 0, name_length) != 0) return;
  std::string version = line.substr(name_length, line.size() - name_length - 1);
  if (!std::all_of(version.begin(), version.end(), [](char c) { return c >= '0' && c <= '9'; })) return;
  version_ = std::move(version);
  state_ = State::kOtherVersion;
}

// Skips words from later releases.
void ReadyLineFinder::TakeFeatures(std::string_view words) {
  std::istringstream stream{std::string(words)};
  for (std::string word; stream >> word;) {
    for (const auto& [known, feature] : kFeatureWords) {
      if (word == known) features_.*feature = true;
    }
  }
}

}  // namespace gxtool
