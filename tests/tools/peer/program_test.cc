// gx-ssh-peer as a process: what its options, its descriptors and signals do.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <cstdlib>

#include "common/control_frames.h"
#include "common/ready_line.h"
#include "peer/confinement.h"
#include "peer/name_cache.h"
#include "support/temp_dir.h"
#include "tools/io.h"

namespace gxtool {
namespace {

using gxmod::ConnectionType;
using ::testing::HasSubstr;

TEST(PeerProgramTest, WrongCommandLinesGetOneLineAndStatus2) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--allow", "*:*"}, "--allow-any"},
      {{"--allow", "a:1", "--allow-any"}, "excludes"},
      {{"--target", "a:1", "--allow", "b:1"}, "excludes"},
      {{"--target", "host"}, "HOST:PORT"},
      {{"--allow", "unix:/run/../x"}, "no '..'"},
      {{"--raw", "--allow", "unix:/run/x"}, "--raw: the frame format alone"},
      {{"--connect-timeout", "soon"}, "15s"},
      {{"--max-connections", "0"}, "--max-connections"},
      {{"--dns-cache", "file", "--dns-refresh", "4294967296"}, "--dns-refresh"},
      {{"--dns-max-age", "5"}, "--dns-cache"},
      {{"--no\nsuch\x1b"}, "--no\\nsuch\\x1b"},
      {{"word"}, "word"},
  };
  for (const auto& [arguments, reason] : cases) {
    Program program(GX_PEER_PROGRAM, arguments);
    EXPECT_EQ(program.Status(), 2) << reason;
    EXPECT_THAT(program.Errors(), HasSubstr(reason));
    EXPECT_EQ(program.Errors().find('\n'), program.Errors().size() - 1) << program.Errors();
    EXPECT_THAT(program.Errors(), ::testing::StartsWith("gx-ssh-peer: "));
  }
}

// The open file may be shared with a shell, which does not expect to find it non-blocking.
TEST(PeerProgramTest, LeavesItsDescriptorsAsTheyWere) {
  Pipe in = MakePipe();
  Pipe out = MakePipe();
  const Target target;
  Program program(GX_PEER_PROGRAM, {"--raw", "-v", "--allow", target.Address()}, in.read.get(),
                  out.write.get());
  const std::string frames = MakeFrame(ConnectionType::Connect, 1, target.Address()) +
                             MakeFrame(ConnectionType::Data, 1, "through pipes");
  EXPECT_EQ(::write(in.write.get(), frames.data(), frames.size()), static_cast<ssize_t>(frames.size()));
  Descriptor connection = target.Accept();
  EXPECT_EQ(ReadExactly(connection.get(), 13), "through pipes");
  EXPECT_NE(::fcntl(in.read.get(), F_GETFL) & O_NONBLOCK, 0);
  connection.Reset();
  EXPECT_EQ(ReadExactly(out.read.get(), gxmod::kFrameHeaderBytes).size(), gxmod::kFrameHeaderBytes);
  in.write.Reset();
  EXPECT_EQ(program.Status(), 0);
  EXPECT_THAT(program.Errors(), HasSubstr("connection 1 to " + target.Address() + " is open"));
  EXPECT_EQ(::fcntl(in.read.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(::fcntl(out.write.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST(PeerProgramTest, SpeaksToFilesToo) {
  char path[] = "/tmp/gx-peer-test-XXXXXX";
  const Descriptor file(::mkstemp(path));
  ASSERT_GE(file.get(), 0);
  ::unlink(path);
  const std::string frames =
      MakeFrame(ConnectionType::Connect, 1, "refused:1") + MakeFrame(kPingFrame, 0, "8 bytes.");
  EXPECT_EQ(::write(file.get(), frames.data(), frames.size()), static_cast<ssize_t>(frames.size()));
  ::lseek(file.get(), 0, SEEK_SET);
  Program program(GX_PEER_PROGRAM, {"--raw", "-vv"}, file.get(), file.get());
  EXPECT_EQ(program.Status(), 0);
  EXPECT_THAT(program.Errors(), HasSubstr("--allow refused:1"));
  EXPECT_THAT(program.Errors(), HasSubstr("confines: " + AvailableConfinement().ToString()));
  ::lseek(file.get(), 0, SEEK_SET);
  Program quiet(GX_PEER_PROGRAM, {"--raw", "-q"}, file.get());
  EXPECT_EQ(quiet.Status(), 0);
  EXPECT_EQ(quiet.Errors(), "");
  Program free(GX_PEER_PROGRAM, {"--raw", "-vv", "--no-confine"}, file.get());
  EXPECT_THAT(free.Errors(), HasSubstr("confines: nothing"));
}

TEST(PeerProgramTest, SigtermEndsItInOrderAndAClosedStdoutQuietly) {
  const Pipe in = MakePipe();
  Program stopped(GX_PEER_PROGRAM, {}, in.read.get());
  std::istringstream greeting(Greeting(Side::kPeer));
  for (std::string line; std::getline(greeting, line);) EXPECT_EQ(stopped.Line(), line);
  stopped.Signal(SIGTERM);
  EXPECT_EQ(stopped.Status(), 0);
  EXPECT_EQ(stopped.Output(), MakeFrame(kGoodbyeFrame, 0, "stopped"));
  EXPECT_EQ(stopped.Errors(), "");

  Pipe out = MakePipe();
  out.read.Reset();
  Program unread(GX_PEER_PROGRAM, {}, in.read.get(), out.write.get());
  EXPECT_EQ(unread.Status(), 1);
  EXPECT_EQ(unread.Errors(), "");
}

TEST(PeerProgramTest, ReachesANameThatOnlyItsCacheKnows) {
  const TempDir dir;
  const std::string file = dir.path() + "/names.json";
  const LookupResult good{{"127.0.0.1", "2001:db8::1"}, {}};
  EXPECT_EQ(OpenNameCache({file})("known.invalid", good).addresses, good.addresses);
  EXPECT_EQ(OpenNameCache({file})("known.invalid", {{}, "down"}).addresses, good.addresses);
  EXPECT_EQ(OpenNameCache({file})("other.invalid", {{}, "down"}).error, "down");

  // The resolver knows no name under .invalid, nor does it ask for long.
  ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 1);
  const Target target;
  const std::string port = ":" + std::to_string(target.port());
  Pipe in = MakePipe();
  const std::string frames = MakeFrame(ConnectionType::Connect, 1, "known.invalid" + port) +
                             MakeFrame(ConnectionType::Connect, 2, "other.invalid" + port);
  EXPECT_EQ(::write(in.write.get(), frames.data(), frames.size()), static_cast<ssize_t>(frames.size()));
  Program program(GX_PEER_PROGRAM,
                  {"--raw", "-v", "--dns-cache", file, "--allow", "127.0.0.1" + port, "--allow",
                   "known.invalid" + port, "--allow", "other.invalid" + port},
                  in.read.get());
  EXPECT_TRUE(target.Accept());
  in.write.Reset();
  EXPECT_EQ(program.Status(), 0);
  EXPECT_THAT(program.Errors(), AllOf(HasSubstr("connection 1 to known.invalid" + port + " is open"),
                                      HasSubstr("could not be opened: ")));
  ::unsetenv("RES_OPTIONS");
}

}  // namespace
}  // namespace gxtool
