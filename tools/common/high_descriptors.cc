#include "common/high_descriptors.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>

namespace gxtool {
namespace {

// Enough for some thousand connections. Some systems allow a billion; a program that loops over all numbers up
// to the limit then takes minutes.
constexpr rlim_t kEnough = 8192;

rlimit g_before{};
bool g_raised = false;

}  // namespace

void RaiseDescriptorLimit() {
  if (g_raised || getrlimit(RLIMIT_NOFILE, &g_before) != 0) return;
  rlimit raised = g_before;
  raised.rlim_cur = std::max(raised.rlim_cur, std::min(raised.rlim_max, kEnough));
  g_raised = setrlimit(RLIMIT_NOFILE, &raised) == 0;
}

void RestoreDescriptorLimit() {
  if (g_raised) setrlimit(RLIMIT_NOFILE, &g_before);
}

int MoveUp(int fd) {
  if (!g_raised || fd < 0 || fd >= FD_SETSIZE) return fd;
  const int high = fcntl(fd, F_DUPFD_CLOEXEC, FD_SETSIZE);
  if (high < 0) return fd;
  close(fd);
  return high;
}

}  // namespace gxtool
