// gx-ssh-peer as a process: what its options, its descriptors and signals do.
#include <fcntl.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "link/control_frames.h"
#include "link/ready_line.h"
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
      {{"--allow", "127.1:22"}, "--allow 127.1:22: an IPv4 address"},
      {{"--allow", "*:*"}, "--allow-any"},
      {{"--allow", "a:1", "--allow-any"}, "excludes"},
      {{"--target", "a:1", "--allow", "b:1"}, "excludes"},
      {{"--target", "host"}, "HOST:PORT"},
      {{"--connect-timeout", "soon"}, "15s"},
      {{"--max-connections", "0"}, "--max-connections"},
      {{"--keepalive-count", "-1"}, "--keepalive-count"},
      {{"--dns-cache", ""}, "--dns-cache"},
      {{"--dns-cache", "file", "--dns-max-age", "-1"}, "--dns-max-age"},
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

// The resolver knows no name under .invalid, nor does it ask for long.
class PeerDnsCacheTest : public testing::Test {
 protected:
  PeerDnsCacheTest() { ::setenv("RES_OPTIONS", "timeout:1 attempts:1", 1); }
  ~PeerDnsCacheTest() override { ::unsetenv("RES_OPTIONS"); }

  // What the peer says to a Connect frame for `host`; when it opens the target, "hello" is sent through.
  std::string Ask(const std::string& host, const std::vector<std::string>& allowed_hosts) {
    const std::string port = std::to_string(target_.port());
    std::vector<std::string> arguments = {"--raw", "-v", "--dns-cache", file_};
    for (const std::string& allowed : allowed_hosts) {
      arguments.insert(arguments.end(), {"--allow", allowed + ":" + port});
    }
    Pipe in = MakePipe();
    Pipe out = MakePipe();
    Program program(GX_PEER_PROGRAM, arguments, in.read.get(), out.write.get());
    const std::string frames =
        MakeFrame(ConnectionType::Connect, 1, host + ":" + port) + MakeFrame(ConnectionType::Data, 1, "hello");
    EXPECT_EQ(::write(in.write.get(), frames.data(), frames.size()), static_cast<ssize_t>(frames.size()));
    pollfd ends[2] = {{target_.fd(), POLLIN, 0}, {out.read.get(), POLLIN, 0}};
    EXPECT_GT(::poll(ends, 2, kBoundMs), 0);
    if (ends[0].revents != 0) {
      EXPECT_EQ(ReadExactly(target_.Accept().get(), 5), "hello");
    }
    in.write.Reset();
    EXPECT_EQ(program.Status(), 0);
    return program.Errors();
  }

  const TempDir dir_;
  const std::string file_ = dir_.path() + "/names.json";
  const Target target_;
};

TEST_F(PeerDnsCacheTest, ReachesANameThatOnlyTheFileKnows) {
  const std::string host = "only-the-file.invalid";
  EXPECT_THAT(Ask(host, {host, "127.0.0.1"}), HasSubstr("could not be opened: "));
  std::ofstream(file_) << R"({"cache": [{"name": ")" << host << R"(", "ips": ["127.0.0.1"], "timestamp": 1}]})";
  EXPECT_THAT(Ask(host, {host, "127.0.0.1"}), HasSubstr("is open"));
}

TEST_F(PeerDnsCacheTest, RemembersWhatItReached) {
  const LookupResult good{{"127.0.0.1", "2001:db8::1"}, {}};
  EXPECT_EQ(OpenNameCache({file_})("db.example", good).addresses, good.addresses);
  std::ifstream file(file_);
  const std::string text(std::istreambuf_iterator<char>(file), {});
  for (const char* const word : {"db.example", "127.0.0.1", "2001:db8::1"}) EXPECT_THAT(text, HasSubstr(word));
  EXPECT_EQ(OpenNameCache({file_})("db.example", {{}, "down"}).addresses, good.addresses);
  EXPECT_EQ(OpenNameCache({file_})("other.example", {{}, "down"}).error, "down");
}

}  // namespace
}  // namespace gxtool
