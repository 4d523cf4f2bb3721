#include "gx-ssh/bring_commands.h"

#include <spdlog/fmt/fmt.h>

#include <algorithm>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "gx-ssh/report.h"

namespace gxtool {
namespace {

// The limit of some shells' line editors for a line from a terminal.
constexpr std::size_t kFirstLineBytes = 1020;
constexpr std::size_t kMarkDigits = 12;

// k PATH LETTER: succeeds if the path is of that kind, belongs to this user and is writable only for this user;
// sets $z to its size. It avoids test -O and /dev/null, which may be missing on the far side.
constexpr const char* kCheck = R"sh(
k(){ p=$2;set -- $(ls -nd "$1" 2>&-);z=$5;
case ${1%.}:$3 in ${p}rwx?-??-?:$(id -u));;*)false;;esac;};
)sh";

// $A and $B are the marks.
constexpr const char* kLookup = R"sh(
case $(uname -sm) in @PEERS@ esac;
@CHECK@ @FOLDER@ f=$d/gx-ssh-peer-$h;
if k "$d" d&&k "$f" -&&[ "$z" = $s ];then
echo "$A${B}7 . $B$A";@RUN@ 3>&-;fi;
)sh";

// The leading blank keeps the line out of the history of shells that support this.
constexpr const char* kEnter = R"sh(
 A=@A@ B=@B@;
if [ -t 0 ];then y=raw;stty raw -echo||y=cooked;else y=pipe;@LOOKUP@ fi;
exec sh -c 'A=$1 B=$2;a(){ echo "$A$B$* $B$A">&3;};a 0 "$3" "$4";
while IFS= read -r l;do eval "$l";done' sh $A $B $y "$(uname -sm)" 3>&1
)sh";

// g N reads exactly N bytes of standard input. The packed text is the letter x.
constexpr const char* kProbe = R"sh(
if [ "$(echo abc|head -c 2 2>&-)" = ab ];then g(){ head -c $1;};
else g(){ dd bs=1 count=$1 2>&-;};fi;
x=$(g @BYTES@|{ od -An -v -tx1 2>&-||hexdump -v -e '/1 " %02x"';});a 1 $x;
printf "$A${B}2 @VALUES@ $B$A">&3;
@LOOKUP@
for q in 'gzip -dc' 'gunzip -c' zcat -;do
[ "$(printf '\037\213\010\0\0\0\0\0\002\003\253\0\0\203\026\334\214\001\0\0\0'|$q 2>&-)" = x ]&&break;done;
c=-;[ "$(echo|sha256sum 2>&-)" ]&&c=sha256sum;a 3 "$q" $c
)sh";

// The test file's first line names no interpreter, so the shell runs it itself, unless the system forbids
// running it (126). A shell that finds itself through /proc returns 127 where there is no /proc; that counts as
// permitted.
constexpr const char* kPrepare = R"sh(
trap 'rm -f "$t";[ "$e" ]&&rmdir "$e"' 0;trap 'exit 1' 1 2 13 15;
@FOLDER@ t=$d/@NAME@;@CHECK@
v(){ [ "$d" ]&&@MAKE@||return 10;
k "$d" d||{ ls -nd "$d";return 11;};
(umask 077;echo :>"$t"&&chmod 700 "$t")||return 12;
"$t"||[ $? != 126 ]||return 13;};
w=$(export LC_ALL=C;v 2>&1);r=$?;
[ $r = 0 ]||{ rm -f "$t";[ "$e" ]&&rmdir "$e" 2>&-;t= e=;};a 4 $r "$w"
)sh";

// Data that cannot be unpacked is read to its end: the shell would take it for commands.
constexpr const char* kReceive = R"sh(
w=$(export LC_ALL=C;
while IFS= read -r n&&[ "$n" != 0 ];do g $n;if [ -f "$t" ];then a 5 +;else a 5 -;fi;done|
{ { @UNPACK@ >"$t";} 2>&1||rm -f "$t";sed d;});
p(){ [ -f "$t" ]||{ a 6 write "$w";return;};
set -- $(ls -n "$t");[ "$5" = @SIZE@ ]||{ a 6 size "$5";return;};
x=$(sha256sum <"$t");[ "${x%% *}" = @SHA256@ ]||{ a 6 hash "${x%% *}";return;};
w=$(export LC_ALL=C;"$t" --version 2>&1)||{ a 6 run "$w";return;};
@PLACE@ a 7 .;trap - 0;@RUN@ 3>&-;};p;rm -f "$t"
)sh";
constexpr const char* kPlace = R"sh(
f=$d/gx-ssh-peer-@SHA256@;w=$(mv -f "$t" "$f" 2>&1)||{ a 6 place "$w";return;};
)sh";

struct Word {
  std::string_view name;  // between two @
  std::string text;
};

// Turns the template into one line and replaces its words. Inserted text is not searched again.
std::string Fill(std::string_view text, std::initializer_list<Word> words) {
  std::string line;
  for (text.remove_prefix(1); text.size() > 1; text.remove_prefix(1)) {
    const auto word = std::find_if(words.begin(), words.end(), [text](const Word& candidate) {
      return text.starts_with(fmt::format("@{}@", candidate.name));
    });
    if (word == words.end()) {
      line += text.front() == '\n' ? ' ' : text.front();
    } else {
      line += word->text;
      text.remove_prefix(word->name.size() + 1);
    }
  }
  return line;
}

std::string AllValues() {
  std::string values;
  for (std::size_t value = 0; value < kBringProbeBytes; ++value) values += static_cast<char>(value);
  return values;
}

// For printf, which would also interpret an octal percent sign: write it as %%.
std::string Octal(const std::string& bytes) {
  std::string text;
  for (const char byte : bytes) {
    text += byte == '%' ? "%%" : fmt::format("\\{:03o}", static_cast<unsigned char>(byte));
  }
  return text;
}

}  // namespace

std::string BringProbe() { return AllValues() + std::string(kBringProbeBytes, '\n'); }

BringCommands::BringCommands(BringOrders orders, const std::string& token)
    : orders_(std::move(orders)),
      mark_a_(token.substr(0, kMarkDigits)),
      mark_b_(token.substr(kMarkDigits, kMarkDigits)),
      name_(token.substr(2 * kMarkDigits)) {}

std::string BringCommands::Folder(bool fresh) const {
  if (fresh) return "d=/tmp/gx-ssh-" + name_ + ";e=$d;";
  if (orders_.folder.empty()) return "d=${XDG_CACHE_HOME:-${HOME:+$HOME/.cache}};d=${d:+$d/gx-ssh};";
  // With a leading "./" no tool takes the path for an option.
  return "d=" + ShellQuoted((orders_.folder.front() == '/' ? "" : "./") + orders_.folder) + ';';
}

std::string BringCommands::Run(const std::string& program) const {
  std::string command = "exec " + program;
  for (const std::string& argument : orders_.arguments) command += ' ' + ShellQuoted(argument);
  return command;
}

std::string BringCommands::Lookup() const {
  if (orders_.once) return {};
  std::string peers;
  for (const StoredPeer& peer : orders_.peers) {
    std::string machines;
    for (const std::string& machine : peer.machines) {
      machines += (machines.empty() ? "" : "|") + machine.substr(0, machine.find(' ')) + "\\ " +
                  machine.substr(machine.find(' ') + 1);
    }
    peers += fmt::format("{})h={} s={};;", machines, peer.sha256, peer.size);
  }
  return Fill(
      kLookup,
      {{"PEERS", peers}, {"CHECK", Fill(kCheck, {})}, {"FOLDER", Folder(false)}, {"RUN", Run("\"$f\"")}});
}

std::string BringCommands::Enter() const {
  const auto line = [this](const std::string& lookup) {
    return Fill(kEnter, {{"LOOKUP", lookup}, {"A", mark_a_}, {"B", mark_b_}}) + '\n';
  };
  const std::string whole = line(Lookup());
  return whole.size() <= kFirstLineBytes ? whole : line({});
}

std::string BringCommands::Probe() const {
  return Fill(kProbe, {{"BYTES", std::to_string(kBringProbeBytes)},
                       {"VALUES", Octal(AllValues())},
                       {"LOOKUP", Lookup()}}) +
         '\n';
}

std::string BringCommands::Prepare(bool fresh) const {
  return Fill(kPrepare, {{"FOLDER", Folder(fresh)},
                         {"NAME", "new-" + name_},
                         {"CHECK", Fill(kCheck, {})},
                         {"MAKE", fresh ? R"(mkdir -m 700 "$d")" : R"((umask 077;mkdir -p "$d"))"}}) +
         '\n';
}

std::string BringCommands::Receive(const StoredPeer& peer, const std::string& unpacker, bool fresh) const {
  const bool stays = !orders_.once && !fresh;
  const std::string program = stays   ? "\"$f\""
                              : fresh ? "\"$t\" --remove-own-folder"
                                      : "\"$t\" --remove-own-file";
  return Fill(kReceive, {{"UNPACK", unpacker},
                         {"PLACE", stays ? Fill(kPlace, {{"SHA256", peer.sha256}}) : ""},
                         {"RUN", Run(program)},
                         {"SIZE", std::to_string(peer.size)},
                         {"SHA256", peer.sha256}}) +
         '\n';
}

}  // namespace gxtool
