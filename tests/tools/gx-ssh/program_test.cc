// gx-ssh as people use it: the real module, the real far side, and far sides that fail.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "common/control_frames.h"
#include "common/ready_line.h"
#include "gx-ssh/failure.h"
#include "gx-ssh/readiness.h"
#include "gx-ssh/relay.h"
#include "support/temp_dir.h"
#include "tools/io.h"

namespace gxtool {
namespace {

using testing::HasSubstr;
using Arguments = std::vector<std::string>;

Descriptor Connect(const std::string& address) {
  const std::size_t colon = address.rfind(':');
  Descriptor connection =
      ConnectTo(address.substr(0, colon), static_cast<std::uint16_t>(std::stoi(address.substr(colon + 1))));
  SetNonBlocking(connection.get(), false);
  return connection;
}

Descriptor ConnectUnix(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  Descriptor connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  return connection;
}

// What comes back for `text` from an echo server at the other end.
std::string Echo(const Descriptor& connection, const std::string& text) {
  EXPECT_EQ(send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
  return ReadExactly(connection.get(), text.size());
}

class ProgramTest : public testing::Test {
 protected:
  // Options, then a far side made of shell commands.
  static Arguments WithShell(Arguments options, const std::string& commands) {
    const Arguments more = {"--", "sh", "-c", commands};
    options.insert(options.end(), more.begin(), more.end());
    return options;
  }
  // Options, then the real far side for the echo server. The carrier's status says nothing.
  Arguments WithPeer(Arguments options) const {
    options.insert(options.end(), {"--target", server_.target().Address()});
    return WithShell(options, "sh -c 'echo $$ >" + folder_.path() + "/pid; exec " + GX_PEER_PROGRAM +
                                  " --allow " + server_.target().Address() + "'; exit 9");
  }
  void SignalPeer(int number) const {
    pid_t peer = 0;
    std::ifstream(folder_.path() + "/pid") >> peer;
    EXPECT_EQ(kill(peer, number), 0);
  }
  // A descriptor with that content to read.
  Descriptor Input(const std::string& content) const {
    std::ofstream(folder_.path() + "/input") << content;
    return Descriptor(open((folder_.path() + "/input").c_str(), O_RDONLY | O_CLOEXEC));
  }

  EchoServer server_;
  const TempDir folder_;
};

// A shell command that prints `bytes`.
std::string Print(const std::string& bytes) {
  std::string command = "printf '";
  char octal[5];
  for (const char byte : bytes) {
    std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    command += octal;
  }
  return command + "'; ";
}

const std::string kReady = Print("GX-SSH-PEER 1\n");
const std::string kGoodbye = Print(MakeFrame(kGoodbyeFrame, 0, "bye"));

TEST_F(ProgramTest, ForwardsUntilItIsStopped) {
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) {
    Program program(GX_SSH_PROGRAM, WithPeer({}));
    const Descriptor connection = Connect(program.Line());
    EXPECT_EQ(Echo(connection, "hello"), "hello");
    program.Signal(number);
    EXPECT_EQ(ReadToEnd(connection.get()), "");
    EXPECT_EQ(program.Errors(), "");
    EXPECT_EQ(program.Output(), "") << "one line is all that standard output gets";
    EXPECT_EQ(program.Status(), kExitOk);
  }
}

TEST_F(ProgramTest, WhatTheModulePrintsIsNotOutput) {
  Program program(GX_SSH_PROGRAM, {"--local", "--module", GX_FAKE_MODULE});
  EXPECT_EQ(program.Output(), "");
  EXPECT_THAT(program.Errors(), AllOf(HasSubstr("a careless library\n"), HasSubstr("makes no plugin")));
  EXPECT_EQ(program.Status(), kExitModule);
}

TEST_F(ProgramTest, ManyDroppedChannelListsAreOneLine) {
  const std::string list = Print(MakeFrame(gxmod::ConnectionType::ChannelList, 0, "0\t22"));
  Program program(GX_SSH_PROGRAM, WithShell({}, kReady + list + list + kGoodbye));
  EXPECT_THAT(program.Errors(), HasSubstr("--allow-channel-list"));
  EXPECT_EQ(program.Errors().find("--allow-channel-list"), program.Errors().rfind("--allow-channel-list"));
}

// The end of the input comes long before the answer, which must be whole all the same.
TEST_F(ProgramTest, StandardIoCarriesEverythingAndTheAnswer) {
  for (const std::size_t size : {0u, 5u, 3'000'000u}) {
    const std::string sent(size, 'x');
    Program program(GX_SSH_PROGRAM, WithPeer({"-W"}), Input(sent).get());
    EXPECT_TRUE(program.Output() == sent) << size;
    EXPECT_EQ(program.Errors(), "");
    EXPECT_EQ(program.Status(), kExitOk);
  }
}

// What a far side says once the first connection has come and brought a byte.
std::string Answer(const std::string& bytes) { return "grep -zaqF 127.0.0.1; " + Print(bytes); }

const std::string kReset = MakeFrame(kResetFrame, 1, {}) + MakeFrame(gxmod::ConnectionType::Close, 1, {});

const std::string kRefusal =
    MakeFrame(kResetFrame, 1, "no route") + MakeFrame(gxmod::ConnectionType::Close, 1, {});

TEST_F(ProgramTest, StandardIoThatLosesBytesIsNoSuccess) {
  const std::string part = MakeFrame(gxmod::ConnectionType::Data, 1, "part");
  const Descriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
  const Descriptor folder(open(folder_.path().c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor words = Input("hello");
  struct Case {
    Arguments arguments;
    int input;
    int output;
    std::string got;
    std::string complaint;
  };
  const Arguments peer = WithPeer({"-W"});
  const Case cases[] = {
      {{"-W", "--target", server_.target().Address(), "--", GX_PEER_PROGRAM},
       words.get(),
       -1,
       "",
       "the far side cannot open it: refused " + server_.target().Address() + ": to permit it"},
      {WithShell({"-W"}, kReady + Answer(kReset) + "cat >/dev/null"), words.get(), -1, "", "closed it at once"},
      {WithShell({"-W"}, kReady + Answer(part + kReset) + "cat >/dev/null"), words.get(), -1, "part",
       "the target broke it, and bytes may be lost"},
      {peer, words.get(), full.get(), "", "No space left on device"},
      {peer, folder.get(), -1, "", "Is a directory"},
  };
  for (const Case& each : cases) {
    lseek(words.get(), 0, SEEK_SET);
    Program program(GX_SSH_PROGRAM, each.arguments, each.input, each.output);
    EXPECT_EQ(program.Output(), each.got);
    EXPECT_THAT(program.Errors(), HasSubstr(each.complaint));
    EXPECT_EQ(program.Status(), kExitLinkLost);
  }
}

// The goodbye is known long before the last byte is with the reader.
TEST_F(ProgramTest, StandardIoCarriesWhatCameBeforeTheGoodbye) {
  const std::string size = "3000000";
  const std::string header = MakeFrame(gxmod::ConnectionType::Data, 1, std::string(std::stoul(size), 'x'))
                                 .substr(0, gxmod::kFrameHeaderBytes);
  Program program(GX_SSH_PROGRAM,
                  WithShell({"-W"}, kReady + Answer(header) + "head -c " + size + " /dev/zero; " + kGoodbye),
                  Input("hello").get());
  EXPECT_EQ(program.Output().size(), std::stoul(size));
  EXPECT_THAT(program.Errors(), HasSubstr("the far side has ended: bye"));
  EXPECT_EQ(program.Status(), kExitLinkLost);
}

TEST_F(ProgramTest, RunsACommandAndEndsWithItsStatus) {
  for (const auto& [end, status] : {std::pair{"exit 7", 7}, std::pair{"kill -9 $$", 128 + SIGKILL}}) {
    const Descriptor input = Input("typed");
    Program program(
        GX_SSH_PROGRAM,
        WithPeer({"--run", std::string("cat; test $GX_SSH_ADDR = $GX_SSH_HOST:$GX_SSH_PORT && ") + end}),
        input.get());
    EXPECT_EQ(program.Output(), "typed");
    EXPECT_EQ(program.Status(), status);
  }
}

// It ends at once, and its child has the time that a command has.
TEST_F(ProgramTest, StopSignalGoesToTheCommandAndThenToItsChildren) {
  const std::string child =
      "(trap 'sleep 0.7; echo saved; exit' TERM; echo up; while :; do sleep 0.1; done) & ";
  Program program(GX_SSH_PROGRAM, WithPeer({"--run", "trap 'exit 7' TERM; " + child + "wait"}));
  EXPECT_EQ(program.Line(), "up");
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Line(), "saved");
  EXPECT_EQ(program.Status(), 7);
}

TEST_F(ProgramTest, CommandWhoseTargetIsRefusedIsNotWaitedFor) {
  const std::string connect = "exec 3<>/dev/tcp/127.0.0.1/$GX_SSH_PORT; echo >&3; ";
  Program refused(GX_SSH_PROGRAM, WithShell({"--run", "bash -c '" + connect + "sleep 60'"},
                                            kReady + Answer(kRefusal) + "cat >/dev/null"));
  EXPECT_THAT(refused.Errors(), HasSubstr("the far side cannot open 127.0.0.1:22: no route\n"));
  EXPECT_EQ(refused.Status(), kExitTunnel);
  Program broken(GX_SSH_PROGRAM, WithShell({"--run", "bash -c '" + connect + "cat <&3; exit 7'"},
                                           kReady + Answer(kReset) + "cat >/dev/null"));
  EXPECT_EQ(broken.Status(), 7) << "it was open, as far as is known";
}

TEST_F(ProgramTest, FailedTunnelEndsTheCommand) {
  for (const std::string& far_side :
       {kReady + "sleep 0.1", std::string("exit 1"), std::string("no-such-program")}) {
    Program program(GX_SSH_PROGRAM, WithShell({"--run", "sleep 60; :"}, far_side));
    EXPECT_EQ(program.Output(), "");
    EXPECT_EQ(program.Status(), kExitTunnel) << far_side;
  }
}

struct BadFarSide {
  Arguments options;
  std::string commands;
  int status;
  std::string complaint;
};

TEST_F(ProgramTest, EachBadFarSideHasItsOwnMessage) {
  const std::vector<BadFarSide> cases = {
      {{},
       "echo oh >&2; exit 3",
       kExitNotReady,
       "gx-ssh: sh: oh\ngx-ssh: the far side is not ready: it has ended before it was ready; does it run "
       "gx-ssh-peer?; carrier \"sh\", exit status 3\n"},
      {{"-q"}, "echo oh >&2; exit 3", kExitNotReady, "exit status 3: oh\n"},
      {{"--connect-timeout", "1s"},
       "printf 'Welcome\\033[1m\\n'; cat >/dev/null",
       kExitNotReady,
       R"(is ready within 1s; does it run gx-ssh-peer, or something else that needs --raw?; it said "Welcome\x1b[1m\n")"},
      {{}, "script -qec " GX_PEER_PROGRAM " /dev/null", kExitNotReady, "stdin is a terminal"},
      {{}, "printf 'GX-SSH-PEER 9\\n'; cat >/dev/null", kExitNotReady, "it speaks version 9 of the protocol"},
      {{}, "yes | tr -d '\\n'", kExitNotReady, "it sends something else"},
      // The status of the carrier says nothing: without a goodbye the link is lost.
      {{}, kReady + "echo last words >&2; exit 0", kExitLinkLost, R"(carrier "sh", exit status 0)"},
      {{}, kReady + kGoodbye + "kill -9 $$", kExitLinkLost, "signal 9 (Killed)"},
      {{"--keepalive", "100ms", "--keepalive-count", "2"},
       kReady + "cat >/dev/null",
       kExitLinkLost,
       R"(no sign of life from the far side for 200ms; carrier "sh" still runs)"},
      {{"--raw"}, "sleep 0.1", kExitLinkLost, "link lost: end of the stream"},
      // An older release, which would take the path for a name.
      {{"--target", "unix:/run/x"}, kReady + "cat >/dev/null", kExitNotReady, "connects to Unix sockets"},
  };
  for (const BadFarSide& bad : cases) {
    Program program(GX_SSH_PROGRAM, WithShell(bad.options, bad.commands));
    const std::string errors = program.Errors();
    EXPECT_THAT(errors, HasSubstr(bad.complaint));
    EXPECT_EQ(program.Status(), bad.status) << errors;
  }
}

TEST_F(ProgramTest, CarrierThatCannotRunHasTheShellsStatus) {
  for (const auto& [carrier, status] : {std::pair{"no-such-program", 127}, std::pair{"/etc/passwd", 126}}) {
    Program program(GX_SSH_PROGRAM, {"--", carrier});
    EXPECT_THAT(program.Errors(), HasSubstr(std::string("gx-ssh: cannot run \"") + carrier));
    EXPECT_EQ(program.Status(), status);
  }
}

// Nobody has asked gx-ssh to end, so whoever watches over it has to hear of it.
TEST_F(ProgramTest, FarSideThatSaysGoodbyeIsNoSuccess) {
  Program program(GX_SSH_PROGRAM, WithPeer({}));
  program.Line();
  SignalPeer(SIGTERM);
  EXPECT_EQ(program.Errors(), "gx-ssh: the far side has ended: stopped\n");
  EXPECT_EQ(program.Status(), kExitLinkLost);
}

TEST_F(ProgramTest, CarrierIsHeardAtOnceAndHarmless) {
  Program program(GX_SSH_PROGRAM, WithShell({}, "printf '\\033[1m\\nSchl\\303\\274ssel: ' >&2; cat >&2"));
  const std::string heard = "gx-ssh: sh: \\x1b[1m\ngx-ssh: sh: Schlüssel: ";
  EXPECT_EQ(ReadExactly(program.errors(), heard.size()), heard);
  const std::string greeting = Greeting(Side::kHost);
  EXPECT_EQ(ReadLine(program.errors()), greeting.substr(0, greeting.find('\n'))) << "the rest of that line";
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Status(), kExitOk);
}

TEST_F(ProgramTest, StrangeEnvironmentReachesNobody) {
  const std::string& home = folder_.path();
  std::ofstream(home + "/.bashrc") << "echo read\n";
  Arguments arguments = {"-u", "SHLVL", "GX_SSH_PORT=1", "HOME=" + home, GX_SSH_PROGRAM, "-q"};
  const Arguments more = {"--listen", "unix:" + home + "/socket", "--run",
                          "echo ${GX_SSH_PORT-none} $GX_SSH_ADDR"};
  arguments.insert(arguments.end(), more.begin(), more.end());
  // bash, unlike sh, would take a socket for a remote login's, and what it then reads would come before the
  // line.
  arguments.insert(arguments.end(), {"--", "bash", "-c", kReady + "cat >/dev/null; test $SHLVL = 2"});
  Program program("/usr/bin/env", arguments);
  EXPECT_EQ(program.Output(), "none unix:" + home + "/socket\n");
  EXPECT_EQ(program.Status(), 0);
}

// It has become another user, and the end of its input means nothing to it.
TEST_F(ProgramTest, CarrierThatCannotBeEndedIsLeftAndTold) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become other users";
  namespace fs = std::filesystem;
  const fs::path folder = folder_.path();
  fs::permissions(folder, fs::perms(0755));
  const std::string program = folder / "gx-ssh";
  const std::string module = folder / "module";
  const std::string become = folder / "become";
  fs::copy_file(GX_SSH_PROGRAM, program);
  fs::copy_file(GX_MODULE, module);
  fs::copy_file("/usr/bin/setpriv", become);
  fs::permissions(become, fs::perms(04755));
  Program host(become.c_str(), {"--reuid=65534", "--clear-groups", program, "--module", module, "--raw", "--",
                                become, "--reuid=65533", "--clear-groups", "sleep", "600"});
  host.Line();
  host.Signal(SIGTERM);
  EXPECT_THAT(host.Errors(), AllOf(HasSubstr("cannot end \"" + become + "\": process "),
                                   HasSubstr(" goes on: Operation not permitted\n")));
  EXPECT_EQ(host.Status(), kExitOk);
}

TEST_F(ProgramTest, ReconnectsAtTheSameAddresses) {
  Program program(GX_SSH_PROGRAM, WithPeer({"--reconnect", "--listen", "127.0.0.1:0", "-L",
                                            "0:" + server_.target().Address()}));
  const std::vector<std::string> addresses = {program.Line(), program.Line()};
  for (int round = 0; round < 3; ++round) {
    std::vector<Descriptor> connections;
    for (const std::string& address : addresses) {
      connections.push_back(Connect(address));
      EXPECT_EQ(Echo(connections.back(), "hello"), "hello") << round << ' ' << address;
    }
    SignalPeer(SIGKILL);
    for (const Descriptor& connection : connections) {
      EXPECT_EQ(ReadToEnd(connection.get()), "") << "a connection of the lost link is closed";
    }
  }
  program.Signal(SIGTERM);
  EXPECT_THAT(program.Errors(), HasSubstr("the link is up again"));
  EXPECT_EQ(program.Status(), kExitOk);
}

TEST_F(ProgramTest, TellsOfEachConnectionAtItsEndWhenAsked) {
  const std::string target = " to " + server_.target().Address();
  const std::string bytes = "s: 5 B sent, 5 B received";
  for (const Arguments& listen : {Arguments{"-v"}, {"-v", "--listen", "127.0.0.1:0"}}) {
    Program program(GX_SSH_PROGRAM, WithPeer(listen));
    const Descriptor connection = Connect(program.Line());
    EXPECT_EQ(Echo(connection, "hello"), "hello");
    sockaddr_in client{};
    socklen_t length = sizeof client;
    EXPECT_EQ(getsockname(connection.get(), reinterpret_cast<sockaddr*>(&client), &length), 0);
    const std::string from = " from 127.0.0.1:" + std::to_string(ntohs(client.sin_port));
    program.Signal(SIGTERM);
    EXPECT_THAT(program.Errors(), testing::ContainsRegex("connection 1" + (listen.size() > 1 ? from : "") +
                                                         target + " closed after .*" + bytes));
  }
}

TEST_F(ProgramTest, UnixSocketIsTheOwnersAndGoesAway) {
  const std::string path = folder_.path() + "/socket";
  for (int round = 0; round < 2; ++round) {
    Program program(GX_SSH_PROGRAM, WithPeer({"--listen", "unix:" + path}));
    EXPECT_EQ(program.Line(), "unix:" + path);
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(Echo(ConnectUnix(path), "hello"), "hello");
    Program second(GX_SSH_PROGRAM, WithPeer({"--listen", "unix:" + path}));
    EXPECT_EQ(second.Status(), kExitListen) << "somebody listens there";
    program.Signal(round == 0 ? SIGKILL : SIGTERM);
    program.Status();
    EXPECT_EQ(std::filesystem::exists(path), round == 0) << "what a killed one left does not matter";
  }
}

TEST_F(ProgramTest, ScriptsGetEventsAndAPortFile) {
  const std::string port_file = folder_.path() + "/port";
  Program program(GX_SSH_PROGRAM, WithPeer({"--json", "--port-file", port_file}));
  EXPECT_THAT(program.Line(), HasSubstr(R"("event":"link")"));
  EXPECT_THAT(program.Line(), HasSubstr(R"("state":"up")"));
  EXPECT_THAT(program.Line(), HasSubstr(R"("event":"listening")"));
  std::string address;
  std::ifstream(port_file) >> address;
  struct stat info {};
  EXPECT_EQ(stat(port_file.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_EQ(Echo(Connect(address), "hello"), "hello");
  EXPECT_THAT(program.Line(), HasSubstr(R"("event":"open")"));
  const std::string close = program.Line();
  EXPECT_THAT(close, HasSubstr(R"("event":"close")"));
  EXPECT_THAT(close, HasSubstr(R"("received":5,"seconds":)"));
  program.Signal(SIGUSR1);
  EXPECT_THAT(ReadLine(program.errors()), HasSubstr("received"));
  program.Signal(SIGTERM);
  EXPECT_THAT(program.Output(), HasSubstr(R"("reason":"stopped","status":0,)"));
  EXPECT_FALSE(std::filesystem::exists(port_file));
}

TEST_F(ProgramTest, OnlyWhatIsStillItsOwnIsRemoved) {
  const std::string path = folder_.path() + "/name";
  for (const Arguments& options : {Arguments{"--port-file", path}, {"--listen", "unix:" + path}}) {
    Program older(GX_SSH_PROGRAM, WithPeer(options));
    older.Line();
    std::filesystem::remove(path);
    Program newer(GX_SSH_PROGRAM, WithPeer(options));
    newer.Line();
    older.Signal(SIGTERM);
    EXPECT_EQ(older.Status(), kExitOk);
    EXPECT_TRUE(std::filesystem::exists(path)) << options.front();
    newer.Signal(SIGTERM);
    EXPECT_EQ(newer.Status(), kExitOk);
    EXPECT_FALSE(std::filesystem::exists(path)) << options.front();
  }
}

TEST_F(ProgramTest, ReaderOfEventsThatStallsHoldsUpNothing) {
  const Pipe events = MakePipe();
  SetNonBlocking(events.write.get(), true);
  while (write(events.write.get(), "x", 1) == 1) {
  }
  SetNonBlocking(events.write.get(), false);
  const std::string port_file = folder_.path() + "/port";
  Program program(GX_SSH_PROGRAM, WithPeer({"--json", "--port-file", port_file}), 0, events.write.get());
  ASSERT_TRUE(gxtest::Eventually([&] { return std::filesystem::exists(port_file); }));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Status(), kExitOk);
}

TEST_F(ProgramTest, ReaderOfErrorsThatStallsHoldsUpNothing) {
  Program program(GX_SSH_PROGRAM,
                  WithShell({}, kReady + "head -c 10000 /dev/zero | tr '\\0' '\\n' >&2; cat >/dev/null"));
  program.Line();
  const auto is_full = [&program] {
    int unread = 0;
    const int size = fcntl(program.errors(), F_GETPIPE_SZ);
    return ioctl(program.errors(), FIONREAD, &unread) == 0 && unread > size - 2 * PIPE_BUF;
  };
  ASSERT_TRUE(gxtest::Eventually(is_full));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Status(), kExitOk);
}

TEST_F(ProgramTest, ProbeTellsWhatTheCarrierIsGoodFor) {
  const std::string peer = GX_PEER_PROGRAM;
  Program good(GX_SSH_PROGRAM, WithShell({"--probe", "--json"}, "echo Welcome; exec " + peer));
  EXPECT_THAT(good.Output(),
              AllOf(HasSubstr(R"("usable":1)"), HasSubstr(R"("noise":"Welcome\\n)"),
                    HasSubstr(R"("round_trip_median_ms":)"), HasSubstr(R"("bytes_survive":1)"),
                    HasSubstr(R"("there_bytes_per_second":)"), HasSubstr(R"("both_bytes_per_second":)")));
  EXPECT_EQ(good.Status(), kExitOk) << good.Errors();
  Program bad(GX_SSH_PROGRAM, WithShell({"--probe"}, peer + " | stdbuf -o0 tr '\\200' '\\201'"));
  EXPECT_THAT(bad.Output(), HasSubstr("not usable: byte 0x80 comes back as 0x81"));
  EXPECT_EQ(bad.Status(), kExitNotReady);
}

TEST_F(ProgramTest, TellsWhoeverWaitsAndKeepsALog) {
  const std::string ready = folder_.path() + "/ready";
  const std::string log = folder_.path() + "/log";
  Arguments arguments = {"-c",
                         "exec 3>" + ready + "; exec \"$0\" \"$@\"",
                         GX_SSH_PROGRAM,
                         "--ready-fd",
                         "3",
                         "--log-file",
                         log,
                         "--log-format",
                         "json",
                         "--stats",
                         "100ms"};
  const Arguments more = WithPeer({});
  arguments.insert(arguments.end(), more.begin(), more.end());
  Program program("/bin/sh", arguments);
  const std::string address = program.Line();
  std::string told;
  EXPECT_TRUE(gxtest::Eventually([&] { return bool(std::getline(std::ifstream(ready), told)); }));
  EXPECT_EQ(told, address);
  EXPECT_THAT(ReadLine(program.errors()), HasSubstr("0 open, 0 in all; 0 B sent"));
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Status(), kExitOk);
  std::getline(std::ifstream(log), told);
  EXPECT_THAT(told, testing::StartsWith(
                        R"({"level":"info","message":"0 open, 0 in all; 0 B sent, 0 B received","time":"20)"));
}

TEST_F(ProgramTest, GoesOnInTheBackground) {
  const std::string port_file = folder_.path() + "/port";
  Program program(GX_SSH_PROGRAM, WithPeer({"--background", "--port-file", port_file}));
  const std::string address = program.Line();
  const pid_t pid = std::stoi(program.Line());
  EXPECT_EQ(program.Output() + program.Errors(), "");
  EXPECT_TRUE(WaitFor(program.errors(), POLLIN)) << "nobody holds it open";
  EXPECT_EQ(program.Status(), kExitOk);
  EXPECT_EQ(getsid(pid), pid);
  EXPECT_EQ(Echo(Connect(address), "hello"), "hello");
  EXPECT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_TRUE(gxtest::Eventually([&] { return !std::filesystem::exists(port_file); }));

  Program failing(GX_SSH_PROGRAM, WithShell({"--background"}, "exit 1"));
  EXPECT_THAT(failing.Errors(), HasSubstr("it has ended before it was ready"));
  EXPECT_EQ(failing.Output(), "");
  EXPECT_EQ(failing.Status(), kExitNotReady);
}

TEST_F(ProgramTest, ServiceManagerHearsHowItIs) {
  if (!Readiness::KnowsServiceManager()) GTEST_SKIP() << "not in this build";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = folder_.path() + "/notify";
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const Descriptor manager(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(manager.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const auto hears = [&manager](const std::string& word) {
    for (std::string said; !(said = ReadSome(manager.get())).empty();) {
      if (said == word) return true;
    }
    return false;
  };
  Arguments arguments = {"NOTIFY_SOCKET=" + path, "WATCHDOG_USEC=200000", GX_SSH_PROGRAM};
  // A carrier that could speak for gx-ssh does not become ready.
  const Arguments more = WithShell({}, "test -z \"$NOTIFY_SOCKET\" || exit 1; " + kReady + "cat >/dev/null");
  arguments.insert(arguments.end(), more.begin(), more.end());
  Program program("/usr/bin/env", arguments);
  EXPECT_TRUE(hears("STATUS=the link is up"));
  EXPECT_TRUE(hears("READY=1"));
  EXPECT_TRUE(hears("WATCHDOG=1"));
  EXPECT_TRUE(hears("WATCHDOG=1"));
  program.Signal(SIGTERM);
  EXPECT_TRUE(hears("STOPPING=1"));
  EXPECT_EQ(program.Status(), kExitOk);
}

// Whoever has called before it starts is served, and the sockets stay when it has ended.
TEST_F(ProgramTest, TakesTheSocketsThatAServiceManagerListensAt) {
  if (!Readiness::KnowsServiceManager()) GTEST_SKIP() << "not in this build";
  const std::string path = folder_.path() + "/socket";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const Descriptor local(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(bind(local.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(local.get(), 10), 0);
  const Target port;
  // Where no other program's descriptors are.
  const Descriptor passed[] = {Descriptor(fcntl(local.get(), F_DUPFD, 100)),
                               Descriptor(fcntl(port.fd(), F_DUPFD, 100))};
  const auto start = [&](Arguments options) {
    const std::string pass = "exec 3<&" + std::to_string(passed[0].get()) + " 4<&" +
                             std::to_string(passed[1].get()) +
                             "; LISTEN_PID=$$ LISTEN_FDS=2 exec \"$0\" \"$@\"";
    options.insert(options.begin(), {"-c", pass, GX_SSH_PROGRAM, "--listen", "unix:" + path});
    options.insert(options.end(), {"--target", server_.target().Address()});
    return WithShell(options, std::string("test -z \"$LISTEN_FDS\" && exec ") + GX_PEER_PROGRAM + " --allow " +
                                  server_.target().Address());
  };
  const Descriptor early = ConnectUnix(path);
  Program program("/bin/bash", start({"-L", std::to_string(port.port()) + ":" + server_.target().Address()}));
  EXPECT_EQ(Echo(early, "hello"), "hello");
  EXPECT_EQ(program.Line(), "unix:" + path);
  EXPECT_EQ(Echo(Connect(program.Line()), "there"), "there");
  program.Signal(SIGTERM);
  EXPECT_EQ(program.Status(), kExitOk) << program.Errors();
  ConnectUnix(path);

  Program forgetful("/bin/bash", start({}));
  EXPECT_THAT(forgetful.Errors(), HasSubstr("the service manager listens at " + port.Address()));
  EXPECT_EQ(forgetful.Status(), kExitListen);
}

}  // namespace
}  // namespace gxtool
