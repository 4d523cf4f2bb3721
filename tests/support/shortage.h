// A process that has many files open, and a system that refuses a call, as a sandbox does.
#ifndef GX_TESTS_SUPPORT_SHORTAGE_H
#define GX_TESTS_SUPPORT_SHORTAGE_H

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/test.h"

namespace gxtest {

// Opens files until every descriptor below `limit` is in use. Some above it stay free.
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

// Does `work` on a thread of its own, for which the system call `number` fails with `error`, as for all threads
// that the work starts.
template <class Work>
void WithRefusedCall(long number, int error, Work work) {
  std::thread([&] {
    sock_filter steps[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{sizeof steps / sizeof *steps, steps};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
    work();
  }).join();
}

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_SHORTAGE_H
