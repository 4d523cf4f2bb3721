// A process that has many files open.
#ifndef GX_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H
#define GX_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "support/test.h"

namespace gxtest {

// Open files that take every descriptor below `limit`; there is room for some above it.
class TakenDescriptors {
 public:
  explicit TakenDescriptors(int limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit wanted{static_cast<rlim_t>(limit) + 200, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
    do files_.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    while (files_.back() >= 0 && files_.back() < limit - 1);
  }
  TakenDescriptors(const TakenDescriptors&) = delete;
  TakenDescriptors& operator=(const TakenDescriptors&) = delete;
  ~TakenDescriptors() {
    for (const int file : files_) close(file);
    setrlimit(RLIMIT_NOFILE, &before_);
  }

 private:
  std::vector<int> files_;
  rlimit before_;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H
