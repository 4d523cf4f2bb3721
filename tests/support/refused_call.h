// A system that refuses a call, as a sandbox does.
#ifndef GX_TESTS_SUPPORT_REFUSED_CALL_H
#define GX_TESTS_SUPPORT_REFUSED_CALL_H

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include "support/test.h"

namespace gxtest {

// Does `work` on a thread of its own, for which the system call `number` fails with `error`. Whatever threads
// the work starts are refused it, too.
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

#endif  // GX_TESTS_SUPPORT_REFUSED_CALL_H
