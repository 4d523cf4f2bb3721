// Fails a test that leaves a descriptor, a thread, a child process or a live object of the module behind.
#ifndef GX_TESTS_SUPPORT_LEAK_GATE_H
#define GX_TESTS_SUPPORT_LEAK_GATE_H

#include <malloc.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <filesystem>

#include "object/object_monitor.h"
#include "support/test.h"
#include "support/wait.h"

namespace gxtest {

inline int CountEntries(const char* directory) {
  return static_cast<int>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

inline int OpenDescriptors() { return CountEntries("/proc/self/fd"); }  // one more: the directory
inline int Threads() { return CountEntries("/proc/self/task"); }

// Bytes of the heap that are in use; 0 where a sanitizer has a heap of its own.
inline std::size_t HeapBytes() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Asks the process's own sockets. A connection attempt could reach a program that has been given a port that
// was just closed here.
inline bool AnyPortListens() {
  int listens = 0;
  for (int descriptor = 0; descriptor < FD_SETSIZE && listens == 0; ++descriptor) {
    socklen_t length = sizeof listens;
    getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length);
  }
  return listens != 0;
}

inline std::int64_t LiveObjects() {
  std::int64_t alive = 0;
  for (std::int64_t id = 0; id < __MonitoringObjectIndex__() && id < kMaxMonitoredClasses; ++id) {
    const ICObjectMonitor* monitor = __MonitorintObjects__()[id].monitor;
    if (monitor != nullptr) alive += monitor->NewCount() - monitor->DeleteCount();
  }
  return alive;
}

// A fixture whose tests end with the figures that they started with. The kernel removes a joined thread from
// /proc a moment late, so TearDown waits for the figures.
class LeakGate : public testing::Test {
 protected:
  // A sanitizer starts its own thread together with the first one of the program.
  static void SetUpTestSuite() {
    std::thread([] {}).join();
  }

  void TearDown() override {
    EXPECT_TRUE(Eventually([&] { return Threads() <= threads_; })) << Threads() << " threads, not " << threads_;
    EXPECT_TRUE(Eventually([&] { return OpenDescriptors() <= descriptors_; }))
        << OpenDescriptors() << " descriptors, not " << descriptors_;
    EXPECT_TRUE(Eventually([&] { return LiveObjects() <= objects_; }))
        << LiveObjects() << " objects, not " << objects_;
    siginfo_t info;
    EXPECT_EQ(waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT), -1) << "a child is left";
  }

 private:
  const int descriptors_ = OpenDescriptors();
  const int threads_ = Threads();
  const std::int64_t objects_ = LiveObjects();
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_LEAK_GATE_H
