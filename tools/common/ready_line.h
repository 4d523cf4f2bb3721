// The line with which the two programs recognise each other on a new stream: each side sends its line at once
// and skips everything that arrives before the other's, such as a login banner or a shell's output.
#ifndef GX_COMMON_READY_LINE_H
#define GX_COMMON_READY_LINE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace gxtool {

enum class Side { kHost, kPeer };  // gx-ssh, gx-ssh-peer

inline constexpr int kProtocolVersion = 1;
inline constexpr std::size_t kNoiseBytes = 64 * 1024;

// What a side supports beyond version 1 of the protocol. A side sends it as a line before its ready line; older
// releases skip that line as noise.
struct Features {
  bool flow_control = false;  // acknowledges what it receives
  bool unix_targets = false;  // connects to Unix sockets
  bool fill = false;          // sends any number of bytes when it is asked to

  friend bool operator==(const Features&, const Features&) = default;
};
inline constexpr Features kOwnFeatures{.flow_control = true, .unix_targets = true, .fill = true};

// The ready line of `side`, with its line feed.
std::string ReadyLine(Side side);
// The ready line, after a line with this program's features if it has any.
std::string Greeting(Side side);

// Searches received bytes for the other side's ready line.
class ReadyLineFinder {
 public:
  enum class State {
    kSearching,
    kFound,         // the following bytes are frames
    kOtherVersion,  // the other side uses protocol version()
    kNotClean,      // the line ended with a carriage return: a terminal in between would corrupt frames
    kTooMuchNoise,  // kNoiseBytes were skipped
  };

  explicit ReadyLineFinder(Side other);

  // Returns how many of `bytes` it consumed: all, or those up to the end of the line that settled the state.
  // Consumes nothing once the state is other than kSearching.
  std::size_t Feed(std::string_view bytes);

  State state() const { return state_; }
  const std::string& version() const { return version_; }
  // Features of the other side. Empty if its feature line got lost in the noise.
  const Features& features() const { return features_; }
  // The last kQuoteBytes of skipped bytes, unescaped.
  const std::string& noise() const { return noise_; }
  // True when our own line came back: a terminal in between echoes.
  bool echoed() const { return echoed_; }

 private:
  void TakeByte(char byte);
  void JudgeLine();
  void TakeFeatures(std::string_view words);

  const std::string features_name_;
  const std::string expected_;
  const std::string own_;
  State state_ = State::kSearching;
  std::string version_;
  Features features_;
  std::string line_;  // the current line, up to the length of a valid one
  std::string noise_;
  std::size_t skipped_ = 0;
  bool echoed_ = false;
};

}  // namespace gxtool

#endif  // GX_COMMON_READY_LINE_H
