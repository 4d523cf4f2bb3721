#include "base/shared_file.h"

#include <fcntl.h>
#include <signal.h>
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

// Does `work` in a child process.
pid_t Start(const std::function<void()>& work) {
  const pid_t id = fork();
  if (id != 0) return id;
  work();
  _exit(0);
}

// Its status as waitpid gives it.
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

// Four programs save different names in one file at once. Each uses a new cache for each save, since a cache
// would write lost records again with its next save.
TEST_F(SharedFileTest, ProgramsThatSaveAtOnceLoseNothing) {
  constexpr int kPrograms = 4;
  constexpr int kNames = 25;
  std::vector<pid_t> programs;
  for (int program = 0; program < kPrograms; ++program) {
    programs.push_back(Start([&] {
      addrinfo* answer = nullptr;
      getaddrinfo("192.0.2.1", nullptr, nullptr, &answer);
      for (int i = 0; i < kNames; ++i) {
        const std::string name = std::to_string(program) + "-" + std::to_string(i);
        // Its turn may not come in time.
        for (int tries = 20; tries > 0 && ParseDnsRecords(FileText(path_)).count(name) == 0; --tries) {
          DnsCache cache;
          cache.Init(path_, 0, 0);
          addrinfo* list = answer;
          cache.getaddrinfo_local(name.c_str(), nullptr, nullptr, &list, 0);
        }
      }
    }));
  }
  for (const pid_t program : programs) EXPECT_EQ(Wait(program), 0);
  EXPECT_EQ(ParseDnsRecords(FileText(path_)).size(), static_cast<std::size_t>(kPrograms * kNames));
}

// A file-size limit either kills the process during its save or makes the write fail as on a full disk.
TEST_F(SharedFileTest, ASaveThatDiesOrFailsCostsNothing) {
  EXPECT_TRUE(SharedFile(path_).Write("old"));
  ASSERT_EQ(chmod(path_.c_str(), 0600), 0);
  for (const std::size_t size : {2'000u, 1'000'000u}) {  // the short text is written by Close only
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
  EXPECT_TRUE(SharedFile(path_).Write("new")) << "the file that the dead process has left";
  EXPECT_EQ(FileText(path_), "new");
  struct stat status;
  ASSERT_EQ(stat(path_.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

// Only where the folder forbids new files is the old text overwritten.
TEST_F(SharedFileTest, WithoutANewFileTheOldTextIsKept) {
  EXPECT_TRUE(SharedFile(path_).Write("old"));
  std::filesystem::create_directory(path_ + ".tmp");
  EXPECT_FALSE(SharedFile(path_).Write("new"));
  EXPECT_EQ(FileText(path_), "old");
}

// Nobody can create files in /proc, not even root.
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
