#include "gx-ssh/child.h"

#include <gtest/gtest.h>

#include "common/descriptor.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

// All descendants of the child hold the pipe, so it ends when the last of them has ended.
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

}  // namespace
}  // namespace gxtool
