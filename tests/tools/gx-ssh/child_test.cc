#include "gx-ssh/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "common/descriptor.h"
#include "gx-ssh/failure.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

// A program without them would write to the standard output that gx-ssh has.
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

// Whatever a child does to stay or to its keeper, and however it is ended: the pipe that all its descendants
// hold comes to its end.
TEST(ChildTest, LeavesNothingBehind) {
  const std::string stubborn = "trap '' TERM HUP INT; kill -USR1 $PPID; echo ready; while :; do sleep 60; done";
  const std::string parent = "(" + stubborn + ") & ";
  for (const std::string& command :
       {stubborn, parent + "wait", parent + "sleep 0.1", std::string("echo ready; sleep 60; :")}) {
    Pipe pipe = MakePipe();
    Child child({{"sh", "-c", command}, 0, pipe.write.get(), 2});
    pipe.write.Reset();
    EXPECT_EQ(ReadExactly(pipe.read.get(), 6), "ready\n");
    child.End();
    EXPECT_EQ(ReadToEnd(pipe.read.get()), "") << command;
  }
}

TEST(ChildTest, WhatWantsToStayMayStay) {
  Pipe pipe = MakePipe();
  Child child({{"sh", "-c", "setsid sh -c 'echo $$; exec sleep 60' & sleep 60"}, 0, pipe.write.get(), 2});
  const pid_t stays = std::stoi(ReadSome(pipe.read.get()));
  child.End();
  EXPECT_EQ(kill(stays, SIGKILL), 0);
}

}  // namespace
}  // namespace gxtool
