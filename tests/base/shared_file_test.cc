#include "base/shared_file.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/dns_cache.h"
#include "support/leak_gate.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

using gxbase::SharedFile;

// A process that does one thing and ends.
pid_t Start(const std::function<void()>& work) {
  const pid_t id = fork();
  if (id != 0) return id;
  work();
  _exit(0);
}

// How it ended, as waitpid tells it.
int Wait(pid_t id) {
  int status = -1;
  waitpid(id, &status, 0);
  return status;
}

class SharedFileTest : public gxtest::LeakGate {
 protected:
  const TempDir dir_;
  const std::string path_ = dir_.path() + "/file";
};

// Each of four programs that start with the same file saves its own names; a record lost by one of them would
// be back with its next save, so each forgets what it has saved.
TEST_F(SharedFileTest, ProgramsThatSaveAtOnceLoseNothing) {
  constexpr int kPrograms = 4;
  constexpr int kNames = 25;
  std::vector<pid_t> programs;
  for (int program = 0; program < kPrograms; ++program) {
    programs.push_back(Start([&] {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      addrinfo answer{};
      answer.ai_family = AF_INET;
      answer.ai_addr = reinterpret_cast<sockaddr*>(&address);
      answer.ai_addrlen = sizeof address;
      for (int i = 0; i < kNames; ++i) {
        DnsCache cache;
        cache.Init(path_, 0, 0);
        addrinfo* list = &answer;
        const std::string name = std::to_string(program) + "-" + std::to_string(i);
        cache.getaddrinfo_local(name.c_str(), nullptr, nullptr, &list, 0);
      }
    }));
  }
  for (const pid_t program : programs) EXPECT_EQ(Wait(program), 0);
  EXPECT_EQ(ParseDnsRecords(FileText(path_)).size(), static_cast<std::size_t>(kPrograms * kNames));
}

// A file-size limit ends the process in the middle of its save, or lets the write fail as a full disk does.
TEST_F(SharedFileTest, ASaveThatDiesOrFailsCostsNothing) {
  EXPECT_TRUE(SharedFile(path_).Write("old"));
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  for (const std::size_t size : {2'000u, 1'000'000u}) {  // a short text is written when the file is closed
    for (const bool dies : {true, false}) {
      const pid_t save = Start([&] {
        const rlimit half{size / 2, size / 2};
        setrlimit(RLIMIT_FSIZE, &half);
        signal(SIGXFSZ, dies ? SIG_DFL : SIG_IGN);
        _exit(SharedFile(path_).Write(std::string(size, 'x')) ? 1 : 0);
      });
      const int status = Wait(save);
      EXPECT_EQ(dies ? WTERMSIG(status) : status, dies ? SIGXFSZ : 0);
      EXPECT_EQ(FileText(path_), "old");
    }
  }
  EXPECT_TRUE(SharedFile(path_).Write("new")) << "what the dead one left is in nobody's way";
  EXPECT_EQ(FileText(path_), "new");
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

// On a file system with room for a folder, the file and its lock; nobody else sees it.
TEST_F(SharedFileTest, ADiskWithoutRoomForANewFileKeepsTheOldText) {
  constexpr int kCannotMount = 2;
  const pid_t save = Start([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("none", dir_.path().c_str(), "tmpfs", 0, "nr_inodes=3") != 0)
      _exit(kCannotMount);
    std::ofstream(path_) << "old";
    _exit(!SharedFile(path_).Write("new") && FileText(path_) == "old" ? 0 : 1);
  });
  const int status = WEXITSTATUS(Wait(save));
  if (status == kCannotMount) GTEST_SKIP() << "cannot mount";
  EXPECT_EQ(status, 0);
}

// Nobody can make files in /proc, not even root.
TEST_F(SharedFileTest, WhereTheFolderCannotBeWrittenTheFileIsWrittenInPlace) {
  const int file = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(file, 0);
  const std::string in_place = "/proc/self/fd/" + std::to_string(file);
  EXPECT_TRUE(SharedFile(in_place).Write("a longer text"));
  EXPECT_TRUE(SharedFile(in_place).Write("text"));
  EXPECT_EQ(FileText(path_), "text");
  close(file);
  EXPECT_FALSE(SharedFile(dir_.path() + "/no/such/folder").Write("text"));
}

TEST_F(SharedFileTest, ATurnThatDoesNotComeChangesNothing) {
  std::optional<SharedFile> other(path_);
  EXPECT_TRUE(other->Write("theirs"));
  EXPECT_FALSE(SharedFile(path_, 20).Write("ours"));
  EXPECT_EQ(FileText(path_), "theirs");
  other.reset();
  EXPECT_TRUE(SharedFile(path_).Write("ours"));
  EXPECT_EQ(FileText(path_), "ours");
}

}  // namespace
