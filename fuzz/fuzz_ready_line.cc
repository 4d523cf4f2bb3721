// The tools' ready line: the result is the same for pieces of any size, and only a whole line is found.
#include "check.h"
#include "common/escape.h"
#include "common/ready_line.h"

using gxtool::ReadyLineFinder;
using gxtool::Side;

namespace {

std::size_t FeedInPieces(ReadyLineFinder& finder, const std::string& text, std::size_t piece) {
  std::size_t taken = 0;
  for (std::size_t at = 0; at < text.size(); at += piece) taken += finder.Feed(text.substr(at, piece));
  return taken;
}

}  // namespace

// The first byte determines the side and the size of the pieces.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Side other = (data[0] & 1) != 0 ? Side::kHost : Side::kPeer;
  const std::string text = Text(data + 1, size - 1);
  ReadyLineFinder whole(other);
  ReadyLineFinder cut(other);
  const std::size_t taken = whole.Feed(text);
  Check(FeedInPieces(cut, text, 1 + data[0] / 2) == taken);
  Check(cut.state() == whole.state() && cut.version() == whole.version() && cut.noise() == whole.noise() &&
        cut.echoed() == whole.echoed() && cut.features() == whole.features());

  const std::string seen = '\n' + text.substr(0, taken);
  const std::string line = '\n' + gxtool::ReadyLine(other);
  const bool found = whole.state() == ReadyLineFinder::State::kFound;
  Check(found == (seen.find(line) != std::string::npos) && found == seen.ends_with(line));
  Check(taken == text.size() || whole.state() != ReadyLineFinder::State::kSearching);
  Check(whole.noise().size() <= gxtool::kQuoteBytes);
  return 0;
}
