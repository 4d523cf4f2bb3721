#include "gx-ssh/bring_talk.h"

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <cstdint>
#include <sstream>
#include <utility>

#include "common/escape.h"
#include "common/ready_line.h"

namespace gxtool {
namespace {

using std::chrono::milliseconds;

// Pieces are sized to take about a second on any line, because each answer shows that the line works.
constexpr std::size_t kFirstPiece = 4096;
constexpr std::size_t kSmallestPiece = 512;
constexpr std::size_t kLargestPiece = 256 * 1024;
constexpr milliseconds kQuick{500};
constexpr milliseconds kSlow{2000};

std::string Hex(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += fmt::format("{}{:02x}", text.empty() ? "" : " ", static_cast<unsigned char>(byte));
  }
  return text;
}

// Describes the first difference and the byte values that never arrived.
std::string Difference(const std::string& sent, const std::string& came) {
  constexpr std::size_t kShown = 3 * 8;
  const auto [at, there] = std::mismatch(sent.begin(), sent.end(), came.begin(), came.end());
  const auto offset = static_cast<std::size_t>(at - sent.begin()) / 3 * 3;
  return fmt::format("sent {} ..., came {} ...", sent.substr(offset, kShown - 1),
                     offset < came.size() ? came.substr(offset, kShown - 1) : "nothing");
}

// Turns a tool's message into a reason.
std::string Reason(const std::string& text) {
  struct Phrase {
    const char* said;
    const char* means;
  };
  constexpr Phrase kPhrases[] = {{"Read-only file system", "the file system is read-only"},
                                 {"No space left", "the disk is full"},
                                 {"uota exceeded", "the disk quota is used up"},
                                 {"Exec format error", "it is for another kind of processor"},
                                 // Some shells run a file as a script when the system cannot execute it.
                                 {"yntax error", "it is for another kind of processor"},
                                 {"\177ELF", "it is for another kind of processor"}};
  for (const auto& [said, means] : kPhrases) {
    if (text.find(said) != std::string::npos) return fmt::format("{} (\"{}\")", means, Escape(text));
  }
  return text.empty() ? "the reason is unknown" : '"' + Escape(text) + '"';
}

std::string PrepareProblem(int status, const std::string& text) {
  switch (status) {
    case kPrepareNoFolder:
      return "it cannot be made: " + Reason(text);
    case kPrepareForeignFolder:
      return "others may write there, or it is somebody else's: " + Reason(text);
    case kPrepareNotWritable:
      return "it cannot be written to: " + Reason(text);
    case kPrepareNotExecutable:
      return "programs cannot be run from there (mounted noexec?): " + Reason(text);
    default:
      return "there is none";
  }
}

}  // namespace

BringTalk::BringTalk(BringCommands commands, Load load)
    : commands_(std::move(commands)),
      load_(std::move(load)),
      mark_(commands_.AnswerMark()),
      piece_bytes_(kFirstPiece) {}

std::string BringTalk::Take(std::string_view bytes, Clock::time_point now) {
  received_ += bytes;
  std::string to_send;
  while (state_ == State::kTalking) {
    const std::size_t begin = received_.find(mark_);
    const std::size_t text = begin + mark_.size() + 2;  // after the kind and a blank
    const std::string mark_end = commands_.AnswerEnd();
    const std::size_t end = begin == std::string::npos ? begin : received_.find(mark_end, text);
    if (end == std::string::npos) {
      if (received_.size() > kNoiseBytes) return Fail("it sends something else" + Quoted());
      if (received_.find(ReadyLine(Side::kPeer)) != std::string::npos) {
        return Fail("gx-ssh-peer runs there already; leave --bring out");
      }
      break;
    }
    noise_ = received_.substr(0, begin);
    if (answers_++ == 0) first_noise_ = noise_.substr(begin - std::min(begin, kQuoteBytes));
    const auto kind = static_cast<BringAnswer>(received_[text - 2]);
    const std::string answer = received_.substr(text, end - text);
    received_.erase(0, end + mark_end.size());
    to_send += Answer(kind, answer, now);
  }
  return to_send;
}

std::string BringTalk::Answer(BringAnswer kind, const std::string& text, Clock::time_point now) {
  const bool sending = stage_ == Stage::kSending;
  const bool probing = stage_ == Stage::kProbing;
  if (kind == BringAnswer::kRuns && stage_ != Stage::kPreparing) {
    state_ = State::kRuns;
    return {};
  }
  if (kind == BringAnswer::kEntered && stage_ == Stage::kEntering) return OnEntered(text);
  if (kind == BringAnswer::kSeen && probing) {
    seen_ = text;
    return {};
  }
  if (kind == BringAnswer::kProbe && probing) return OnProbe(text);
  if (kind == BringAnswer::kTools && probing) return OnTools(text);
  if (kind == BringAnswer::kPrepared && stage_ == Stage::kPreparing) return OnPrepared(text);
  if (kind == BringAnswer::kPiece && sending) return NextPiece(text == "+", now);
  if (kind == BringAnswer::kPlaced && sending) return OnPlaced(text);
  return Fail("it sends an unexpected answer: \"" + Escape(text) + '"');
}

std::string BringTalk::OnEntered(const std::string& text) {
  std::istringstream words(text);
  std::string way;
  std::string machine;
  words >> way;
  std::getline(words >> std::ws, machine);
  if (way == "cooked") {
    return Fail("a terminal lies in between, and stty raw -echo does not work there" + Quoted());
  }
  std::string known;
  for (const StoredPeer& peer : commands_.orders().peers) {
    if (std::find(peer.machines.begin(), peer.machines.end(), machine) != peer.machines.end()) peer_ = &peer;
    known += (known.empty() ? "" : ", ") + peer.architecture;
  }
  if (peer_ == nullptr) {
    return Fail(
        fmt::format("it is \"{}\", and there is a gx-ssh-peer to bring for {} only; gx-ssh-peers has more",
                    Escape(machine), known));
  }
  stage_ = Stage::kProbing;
  return commands_.Probe() + BringProbe();
}

std::string BringTalk::OnProbe(const std::string& text) {
  const std::string sent = Hex(BringProbe().substr(0, kBringProbeBytes));
  if (seen_ != sent) return Fail("the line changes bytes on the way there: " + Difference(sent, seen_));
  const std::string back = Hex(text);
  if (back != sent) return Fail("the line changes bytes on the way here: " + Difference(sent, back));
  return {};
}

std::string BringTalk::OnTools(const std::string& text) {
  const std::size_t blank = text.rfind(' ');
  unpacker_ = text.substr(0, blank);
  if (text.substr(blank + 1) != "sha256sum") return Fail("it has no sha256sum to check what is sent");
  stage_ = Stage::kPreparing;
  return commands_.Prepare(fresh_);
}

std::string BringTalk::OnPrepared(const std::string& text) {
  std::istringstream words(text);
  int status = kPrepareNoFolder;
  words >> status >> std::ws;
  const std::string said{std::istreambuf_iterator<char>(words), {}};
  const std::string& folder = commands_.orders().folder;
  if (status != 0) {
    const std::string problem = PrepareProblem(status, said);
    if (!folder.empty()) return Fail("nothing can be brought to \"" + Escape(folder) + "\": " + problem);
    if (fresh_) {
      return Fail("nothing can be brought to the cache folder: " + no_cache_ +
                  "; nor to a new one in /tmp: " + problem);
    }
    no_cache_ = problem;
    fresh_ = true;
    return commands_.Prepare(fresh_);
  }
  const bool packed = unpacker_ != "-";
  content_ = load_(*peer_, packed);
  stage_ = Stage::kSending;
  return commands_.Receive(*peer_, packed ? unpacker_ : "cat", fresh_) + NextPiece(true, {});
}

std::string BringTalk::NextPiece(bool writable, Clock::time_point now) {
  if (sent_ > 0 && now - piece_sent_ < kQuick) piece_bytes_ = std::min(2 * piece_bytes_, kLargestPiece);
  if (sent_ > 0 && now - piece_sent_ > kSlow) piece_bytes_ = std::max(piece_bytes_ / 2, kSmallestPiece);
  piece_sent_ = now;
  const std::string piece = writable ? content_.substr(sent_, piece_bytes_) : "";
  sent_ += piece.size();
  return std::to_string(piece.size()) + '\n' + piece;
}

std::string BringTalk::OnPlaced(const std::string& text) {
  const std::string word = text.substr(0, text.find(' '));
  const std::string said = text.substr(std::min(text.size(), word.size() + 1));
  if (word == "size") {
    return Fail(fmt::format("{} bytes arrived of {}", Escape(said), peer_->size));
  }
  if (word == "hash") {
    return Fail("what arrived is not what was sent: its SHA-256 is " + Escape(said) + ", not " + peer_->sha256);
  }
  if (word == "run")
    return Fail("gx-ssh-peer for " + peer_->architecture + " does not run there: " + Reason(said));
  return Fail("gx-ssh-peer cannot be written there: " + Reason(said));
}

std::string BringTalk::Fail(const std::string& problem) {
  state_ = State::kFailed;
  problem_ = problem;
  return {};
}

std::string BringTalk::Quoted() const {
  const std::string said = noise_ + received_;
  const std::string last = said.substr(said.size() - std::min(said.size(), kQuoteBytes));
  return last.empty() ? "" : "; it said \"" + Escape(last) + '"';
}

std::string BringTalk::Silence(const std::string& duration) const {
  if (answers_ == 0) return "no shell has answered within " + duration + Quoted();
  return "the shell has not answered for " + duration + Quoted();
}

std::string BringTalk::End() const {
  if (answers_ == 0) return "it has ended before a shell answered" + Quoted();
  return "it has ended while gx-ssh-peer was brought there" + Quoted();
}

}  // namespace gxtool
