#include "gx-ssh/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>

#include "common/descriptor.h"
#include "gx-ssh/failure.h"
#include "tools/io.h"

namespace gxtool {
namespace {

// What a command prints.
std::string Output(const std::string& command) {
  Pipe pipe = MakePipe();
  Child child({{"sh", "-c", command}, 0, pipe.write.get(), 2});
  pipe.write.Reset();
  return ReadToEnd(pipe.read.get());
}

// It would have talked to what was there before, which may be a script that reads our standard output.
TEST(ChildTest, ProgramWithoutItsDescriptorsDoesNotRun) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const Pipe pipe = MakePipe();
  // Room for the four that Child makes, and for no copies of them.
  int end = 0;
  for (int room = 0; room < 4; ++end) {
    if (fcntl(end, F_GETFD) < 0) ++room;
  }
  const rlimit few{static_cast<rlim_t>(end), limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_THROW(Child({{"sh", "-c", "echo loud"}, 0, pipe.write.get(), 2}), Failure);
  setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(ChildTest, StartsWithACleanSlate) {
  signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigset_t before;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &mask, &before);
  EXPECT_EQ(Output("grep -E 'Sig(Blk|Ign)' /proc/self/status | tr -d '\\t\\n'"),
            "SigBlk:0000000000000000SigIgn:0000000000000000");
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(ChildTest, InheritsNoDescriptorOfOurs) {
  // Whoever started this test may have left it some, which are passed on.
  std::ptrdiff_t inherited = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags >= 0 && (flags & FD_CLOEXEC) == 0) ++inherited;
  }
  const Pipe ours = MakePipe();
  const auto [one, other] = MakeSocketPair();
  const std::string list = Output("exec ls /proc/self/fd");
  EXPECT_EQ(std::count(list.begin(), list.end(), '\n'), inherited + 1) << "one is the folder itself: " << list;
}

// Whatever a child does to stay, and however it is ended: the pipe that all its descendants hold comes to its
// end.
TEST(ChildTest, LeavesNothingBehind) {
  const std::string stubborn = "trap '' TERM HUP INT; echo ready; while :; do sleep 60; done";
  const std::string parent = "(" + stubborn + ") & ";
  for (const std::string& command :
       {stubborn, parent + "wait", parent + "sleep 0.1", std::string("echo ready; sleep 60; :")}) {
    Pipe pipe = MakePipe();
    Child child({{"sh", "-c", command}, 0, pipe.write.get(), 2});
    pipe.write.Reset();
    EXPECT_EQ(ReadExactly(pipe.read.get(), 6), "ready\n");
    const auto start = std::chrono::steady_clock::now();
    child.End();
    EXPECT_EQ(ReadToEnd(pipe.read.get()), "") << command;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5)) << command;
  }
}

TEST(ChildTest, WhatWantsToStayMayStay) {
  Pipe pipe = MakePipe();
  Child child({{"sh", "-c", "setsid sh -c 'echo $$; exec sleep 60' & sleep 60"}, 0, pipe.write.get(), 2});
  const pid_t stays = std::stoi(ReadLine(pipe.read.get()));
  child.End();
  EXPECT_EQ(kill(stays, SIGKILL), 0);
}

}  // namespace
}  // namespace gxtool
