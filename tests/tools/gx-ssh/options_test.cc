#include "gx-ssh/options.h"

#include "gx-ssh/failure.h"
#include "support/test.h"

namespace gxtool {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// Splits the line at each blank.
std::variant<Options, int> Parse(std::string line) {
  std::vector<const char*> arguments{"gx-ssh", line.c_str()};
  for (char& c : line) {
    if (c != ' ') continue;
    c = '\0';
    arguments.push_back(&c + 1);
  }
  return ParseOptions(static_cast<int>(arguments.size()), arguments.data());
}

Options Parsed(const std::string& line) {
  const auto result = Parse(line);
  EXPECT_TRUE(std::holds_alternative<Options>(result)) << line;
  return std::holds_alternative<Options>(result) ? std::get<Options>(result) : Options();
}

// Each listening address with its target.
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

// The target as ssh fills in %h:%p, with other options before and after it.
TEST(OptionsTest, StandardIoTakesATargetAsSshNamesIt) {
  const std::pair<std::string, std::string> lines[] = {
      {"-qW host:22 -- cat", "host:22"},        {"-Whost:22 -- cat", "host:22"},
      {"--stdio=host:22 -- cat", "host:22"},    {"-W ::1:22 -- cat", "[::1]:22"},
      {"-W [::1]:22 -- cat", "[::1]:22"},       {"-W unix:/run/x -- cat", "unix:/run/x"},
      {"-W -- cat host:22", "127.0.0.1:22"},    {"-W -q -- cat", "127.0.0.1:22"},
      {"-W --target host:22 -- cat", "host:22"}};
  for (const auto& [line, target] : lines) {
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
  const std::pair<std::vector<std::string>, std::string> mistakes[] = {
      {{"-q"}, "a carrier is missing"},
      {{"--local -- ssh"}, "--local takes no carrier"},
      {{"ssh host"}, "unknown argument \"ssh\"; a carrier stands behind --"},
      {{"--local --keepalive often"}, "--keepalive \"often\": not a duration"},
      {{"--local --reconnect=3x", "--local --reconnect=0"}, "not a number of attempts"},
      {{"--local --ready-fd 2", "--local --ready-fd 99"}, "not an open descriptor above 2"},
      {{"--local --log-format xml"}, "it is text or json"},
      {{"--local --print xml"}, "addr, port, json"},
      {{"--local -L web:1:web:80"}, "must be numeric"},
      {{"--local --name box\nProxyCommand"}, "--name \"box\\n"},
      {{"--local -L /a:web:80 --print port"}, "has none"},
      {{"--local -W -L 1:a:2", "--local -W --json", "--local -W --print addr", "--local -W --port-file x"},
       "-W opens"},
      {{"--connect unix:x --local", "--connect unix:x --run y", "--connect unix:x -L 1:a:2"},
       "--connect takes no carrier"},
      {{"--connect unix:"}, "a path is missing"},
      {{"--connect /x"}, "it is unix:PATH"},
      {{"--probe --run x", "--probe --local", "--probe --raw", "--probe -W"}, "--probe takes a carrier"},
      {{"--background -W", "--background --run x", "--background --json", "--background --probe"},
       "--background leaves standard input and output"},
      {{"--bring --local", "--bring --raw -- x"}, "--bring does not go with"},
      {{"--local --bring-once", "--local --allow a:1", "--local --bring-dir x"}, "go with --bring\n"},
      {{"--bring --bring-dir a\nb -- x"}, "not the path of a folder"},
      {{"--local -W --run x"}, "-W and --run exclude each other"},
      {{"--local -L 8080:[::1:80"}, "-L \"8080:[::1:80\": it is [BIND:]PORT:HOST:HOSTPORT"},
      {{"--local -L 8080", "--local -L /run/x"}, "it is [BIND:]PORT:HOST:HOSTPORT"},
      {{"--local --target unix:/run/./x"}, "no '..'"},
      {{"--local -L /a:1:web:80"}, "neither a name nor an address"},
      {{"--local --raw -L 8080:/run/x"}, "--raw: the frame format alone"},
      {{"--local -L 65536:web:80"}, "a port is a decimal number"},
      {{"--local -L 1:web:80 --target a:1"}, "--target goes with --listen"},
      {{"-W 1:2:3 -- cat"}, "an IPv6 target reads"},
      {{"-W a:1 --target b:1 -- cat"}, "-W HOST:PORT and --target exclude"},
      {{"--local --reconnect --allow-channel-list"}, "opens ports that"},
      {{"--local --listen unix:/x\ny --print ssh-config"}, "two lines"},
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
