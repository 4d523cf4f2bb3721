// A process that has few descriptors, or many.
#ifndef GX_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H
#define GX_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <vector>

namespace gxtest {

// Only descriptors below `limit` can be opened while it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit wanted{static_cast<rlim_t>(limit), before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_;
};

// Open files that take every descriptor below `limit`.
class TakenDescriptors {
 public:
  explicit TakenDescriptors(int limit) {
    for (int taken = 0; taken < limit - 1;) {
      taken = open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (taken < 0) break;
      files_.push_back(taken);
    }
  }
  TakenDescriptors(const TakenDescriptors&) = delete;
  TakenDescriptors& operator=(const TakenDescriptors&) = delete;
  ~TakenDescriptors() {
    for (const int file : files_) close(file);
  }

 private:
  std::vector<int> files_;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_DESCRIPTOR_LIMIT_H
