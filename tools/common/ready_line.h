// The line with which the two tools find each other on a fresh stream: each side sends its own at once and
// skips what it receives up to the other's. A login banner or a shell's noise before it does no harm.
#ifndef GX_COMMON_READY_LINE_H
#define GX_COMMON_READY_LINE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace gxtool {

enum class Side { kHost, kPeer };  // gx-ssh, gx-ssh-peer

inline constexpr int kProtocolVersion = 1;
inline constexpr std::size_t kNoiseBytes = 64 * 1024;

// What a side can do beyond version 1 of the protocol. A side tells it in a line of its own before its ready
// line, where a release that does not know the line skips it as noise.
struct Features {
  bool flow_control = false;  // it acknowledges what it receives
  bool unix_targets = false;  // it connects to Unix sockets

  friend bool operator==(const Features&, const Features&) = default;
};
inline constexpr Features kOwnFeatures{.flow_control = true, .unix_targets = true};

// The line that `side` sends, with its line feed.
std::string ReadyLine(Side side);
// The same behind a line with our features, when there are some.
std::string Greeting(Side side);

// Looks for the line of the other side in the bytes received.
class ReadyLineFinder {
 public:
  enum class State {
    kSearching,
    kFound,         // what follows are frames
    kOtherVersion,  // the other side speaks version() of the protocol
    kNotClean,      // the line came with a carriage return: a terminal lies between and would spoil frames
    kTooMuchNoise,  // kNoiseBytes have passed
  };

  explicit ReadyLineFinder(Side other);

  // Returns how many of `bytes` were taken: all of them, or those up to the end of the line that settled the
  // matter. Once the state is no longer kSearching nothing is taken.
  std::size_t Feed(std::string_view bytes);

  State state() const { return state_; }
  const std::string& version() const { return version_; }
  // Of the other side. None are known of one whose line of features was lost in the noise.
  const Features& features() const { return features_; }
  // The last kQuoteBytes that were skipped, as they came.
  const std::string& noise() const { return noise_; }
  // Our own line has come back: a terminal in between echoes.
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
  std::string line_;  // the current one, as far as it can still matter
  std::string noise_;
  std::size_t skipped_ = 0;
  bool echoed_ = false;
};

}  // namespace gxtool

#endif  // GX_COMMON_READY_LINE_H
