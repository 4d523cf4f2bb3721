#include "gx-ssh/options.h"

#include "gx-ssh/failure.h"
#include "support/test.h"

namespace gxtool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// The words are what stands between single blanks.
std::variant<Options, int> Parse(const std::string& line) {
  std::istringstream rest("gx-ssh " + line);
  std::vector<std::string> words;
  for (std::string word; std::getline(rest, word, ' ');) words.push_back(word);
  std::vector<const char*> arguments;
  for (const std::string& word : words) arguments.push_back(word.c_str());
  return ParseOptions(static_cast<int>(words.size()), arguments.data());
}

Options Parsed(const std::string& line) {
  const auto result = Parse(line);
  EXPECT_TRUE(std::holds_alternative<Options>(result)) << line;
  return std::holds_alternative<Options>(result) ? std::get<Options>(result) : Options();
}

// Where gx-ssh listens for it, and the target.
std::vector<std::string> Told(const Options& options) {
  std::vector<std::string> told;
  for (const auto& [at, target] : options.Listeners()) {
    told.push_back((at.unix_path.empty() ? at.address + ' ' + std::to_string(at.port) : at.unix_path) + " -> " +
                   target);
  }
  return told;
}

TEST(OptionsTest, ReadsValues) {
  const Options options = Parsed(
      "--target [0:0::1]:2222 --keepalive 1m --connect-timeout 500ms --stats 2s --reconnect=3 --listen [::1]:0 "
      "-vvv --print port --json --bring --allow web:80 -- ssh -q -- --raw");
  EXPECT_EQ(options.keepalive, std::chrono::minutes(1));
  EXPECT_EQ(options.connect_timeout, std::chrono::milliseconds(500));
  EXPECT_EQ(options.stats, std::chrono::seconds(2));
  EXPECT_TRUE(options.reconnect);
  EXPECT_EQ(options.reconnect_attempts, 3);
  EXPECT_EQ(options.verbosity, 3);
  EXPECT_EQ(options.print, PrintFormat::kPort);
  EXPECT_THAT(Told(options), ElementsAre("::1 0 -> [::1]:2222"));
  EXPECT_THAT(options.PermittedTargets(), ElementsAre("web:80", "[::1]:2222"));
  EXPECT_THAT(options.carrier, ElementsAre("ssh", "-q", "--", "--raw")) << "whose options are its own";
  EXPECT_EQ(Parsed("--local --reconnect").reconnect_attempts, 0);
  EXPECT_EQ(Parsed("--local").print, PrintFormat::kAddress);
  EXPECT_EQ(Parsed("--local -W").print, PrintFormat::kNothing);
}

TEST(OptionsTest, TellsOfItself) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(std::get<int>(Parse("--help")), kExitOk);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::AllOf(HasSubstr("\nUsage: gx-ssh [OPTIONS] -- CARRIER"), HasSubstr("\nExit status: 0")));
}

// What ssh makes of %h:%p, and what a user may put before or behind it.
TEST(OptionsTest, StandardIoTakesATargetAsSshNamesIt) {
  for (const auto& [line, target] : std::vector<std::pair<std::string, std::string>>{
           {"-q -W db.internal:22 -- cat", "db.internal:22"},
           {"-qW host:22 -- cat", "host:22"},
           {"-Whost:22 -- cat", "host:22"},
           {"--stdio=host:22 --raw -- cat", "host:22"},
           {"-W ::1:22 -- cat", "[::1]:22"},
           {"-W 2001:db8::a:b:2222 -- cat", "[2001:db8::a:b]:2222"},
           {"-W [::1]:22 -- cat", "[::1]:22"},
           {"-W unix:/run/x -- cat", "unix:/run/x"},
           {"-W -- cat host:22", "127.0.0.1:22"},
           {"-W -q -- cat", "127.0.0.1:22"},
           {"-W --target host:22 -- cat", "host:22"},
           {"-W --local", "127.0.0.1:22"}}) {
    const Options options = Parsed(line);
    EXPECT_TRUE(options.standard_io) << target;
    EXPECT_EQ(options.target, target);
  }
}

TEST(OptionsTest, ForwardsReadAsThoseOfSsh) {
  EXPECT_THAT(
      Told(
          Parsed("--local -L 8080:web:80 -L0:[::1]:5432 -L [::1]:1:127.0.0.1:65535 -L 10.0.0.1:1:Web:80 "
                 "-L localhost:1:web:80 -L *:1:web:80 -L :2:web:80 -L /run/a'b:web:80 -L 8080:/run/docker.sock "
                 "-L *:1:/run/x:y -L /run/a:/run/b")),
      ElementsAre("127.0.0.1 8080 -> web:80", "127.0.0.1 0 -> [::1]:5432", "::1 1 -> 127.0.0.1:65535",
                  "10.0.0.1 1 -> web:80", "127.0.0.1 1 -> web:80", "* 1 -> web:80", "* 2 -> web:80",
                  "/run/a'b -> web:80", "127.0.0.1 8080 -> unix:/run/docker.sock", "* 1 -> unix:/run/x:y",
                  "/run/a -> unix:/run/b"));
  EXPECT_TRUE(Parsed("--local -L 1:web:80 -L 1:/run/x").HasUnixTarget());
  EXPECT_FALSE(Parsed("--local -L /run/x:web:80").HasUnixTarget());
  EXPECT_THAT(Told(Parsed("--local -L 1:web:80 --target a:1 --listen [::1]:2")),
              ElementsAre("::1 2 -> a:1", "127.0.0.1 1 -> web:80"))
      << "--listen comes first";
  EXPECT_THAT(Told(Parsed("--local --user-only")), ElementsAre("127.0.0.1 0 -> 127.0.0.1:22"));
  EXPECT_THAT(Told(Parsed("--local --user-only -L 1:web:80")), ElementsAre("127.0.0.1 1 -> web:80"));
}

TEST(OptionsTest, EachMistakeHasOneLineAndAHint) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> mistakes = {
      {{""}, "a carrier is missing"},
      {{"--local -- ssh"}, "--local takes no carrier"},
      {{"ssh host"}, "unknown argument \"ssh\"; a carrier stands behind --"},
      {{"--nonsense -- ssh"}, "unknown argument \"--nonsense\""},
      {{"--local --target box"}, "--target \"box\""},
      {{"--local --keepalive often"}, "--keepalive \"often\": not a duration"},
      {{"--local --reconnect=3x", "--local --reconnect=0", "--local --reconnect=no"},
       "not a number of attempts"},
      {{"--local --ready-fd 2", "--local --ready-fd 99", "--local --ready-fd 1x"},
       "not an open descriptor above 2"},
      {{"--local --log-format xml"}, "it is text or json"},
      {{"--local --listen localhost:1", "--local -L web:1:web:80"}, "must be numeric"},
      {{"--local --name box\nProxyCommand"}, "--name \"box\\n"},
      {{"--local --print xml"}, "addr, port, json"},
      {{"--local --print port --listen unix:/x", "--local -L /a:web:80 --print port"}, "has none"},
      {{"--local -W --json", "--local -W --print addr", "--local -W --port-file x", "--local -W -L 1:web:80"},
       "-W opens no port"},
      {{"--connect unix:/x --local", "--connect unix:/x --listen [::1]:0", "--connect unix:/x --run x"},
       "--connect takes no carrier"},
      {{"--connect /x"}, "it is unix:PATH"},
      {{"--connect unix:"}, "a path is missing"},
      {{"--probe --local", "--probe --raw -- x", "--probe -W -- x", "--probe --run x -- x"},
       "--probe takes a carrier"},
      {{"--background --probe -- x", "--background -W -- x", "--background --run x -- x",
        "--background --json -- x"},
       "--background leaves standard input and output"},
      {{"--bring --local", "--bring --raw -- x"}, "--bring does not go with"},
      {{"--local --bring-once", "--local --bring-dir x", "--local --allow a:1"}, "go with --bring\n"},
      {{"--bring --bring-dir a\nb -- x"}, "not the path of a folder"},
      {{"--local -W --run x"}, "-W and --run exclude each other"},
      {{"--local -L 1:web:80 -L 8080:[::1:80"}, "-L \"8080:[::1:80\": it is [BIND:]PORT:HOST:HOSTPORT"},
      {{"--local -L 8080", "--local -L 1:2:3:4:5", "--local -L [::1]1:web:80", "--local -L 8080:::1:80",
        "--local -L /run/x"},
       "it is [BIND:]PORT:HOST:HOSTPORT"},
      {{"--local -L 8080:/run/../x", "--local --target unix:/run/./x", "--local --target unix:/run/"},
       "no '..'"},
      {{"--local --target unix:run/x"}, "begins with a slash"},
      {{"--local --raw -L 8080:/run/x"}, "--raw: the frame format alone"},
      {{"--local -L 65536:web:80", "--local -L 1:web:0"}, "a port is a decimal number"},
      {{"--local -L /a:1:web:80"}, "neither a name nor an address"},
      {{"--local -L 1:web:80 --target a:1"}, "--target goes with --listen"},
      {{"-W cat"}, "-W \"cat\": a target reads HOST:PORT"},
      {{"-W  -- cat"}, "-W \"\": a target reads HOST:PORT"},
      {{"-W 1:2:3 -- cat", "-W fe80::1%eth0:22 -- cat"}, "an IPv6 target reads"},
      {{"-W a:1 --target b:1 -- cat"}, "-W HOST:PORT and --target exclude"},
      {{"--local --listen unix:/x\ny --print ssh-config"}, "two lines"},
      {{"--local --reconnect --allow-channel-list"}, "opens ports that"},
      {{"--local -q -v"}, "-q and -v"},
  };
  for (const auto& [lines, complaint] : mistakes) {
    for (const std::string& line : lines) {
      testing::internal::CaptureStderr();
      const auto result = Parse(line);
      const std::string said = testing::internal::GetCapturedStderr();
      ASSERT_TRUE(std::holds_alternative<int>(result)) << line;
      EXPECT_EQ(std::get<int>(result), kExitUsage);
      EXPECT_THAT(said, HasSubstr(complaint)) << line;
      EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 2) << said;
    }
  }
}

}  // namespace
}  // namespace gxtool
