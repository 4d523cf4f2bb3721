#include "base/shared_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "base/clock.h"
#include "base/file_stream.h"

namespace gxbase {

namespace {

constexpr std::chrono::milliseconds kRetry{5};
constexpr mode_t kPermissions = 07777;

// Also closes the file, because the system may report a write error only then.
bool WriteAll(FileStream& file, const std::string& text) {
  std::size_t written = 0;
  return file.Write(text.data(), text.size(), &written, nullptr) == SR_SUCCESS && written == text.size() &&
         file.Close();
}

// True when the folder allows no new files. After other errors, such as a full disk, the old text must be kept.
bool IsForbidden(int error) { return error == EACCES || error == EPERM || error == EROFS; }

bool CopyPermissions(const std::string& from, const std::string& to) {
  struct stat status;
  if (stat(from.c_str(), &status) != 0) return errno == ENOENT;
  return chmod(to.c_str(), status.st_mode & kPermissions) == 0;
}

}  // namespace

SharedFile::SharedFile(const std::string& path, unsigned patience_ms)
    : path_(path),
      lock_file_(open((path + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666)),
      turn_(Lock(lock_file_, patience_ms)) {}

SharedFile::~SharedFile() {
  if (lock_file_ != -1) close(lock_file_);  // this releases the lock
}

bool SharedFile::Write(const std::string& text) {
  if (turn_ == Turn::kOthers) return false;
  const std::string fresh = path_ + ".tmp";
  FileStream file;
  int error = 0;
  if (turn_ == Turn::kMine) unlink(fresh.c_str());  // a crash may have left a temporary file
  const bool in_place = turn_ == Turn::kNobodys || (!file.Open(fresh, "wb+", &error) && IsForbidden(error));
  if (in_place) return file.Open(path_, "wb+", nullptr) && WriteAll(file, text);
  if (error != 0) return false;
  const bool saved =
      CopyPermissions(path_, fresh) && WriteAll(file, text) && rename(fresh.c_str(), path_.c_str()) == 0;
  if (!saved) unlink(fresh.c_str());
  return saved;
}

// flock has no time limit, so this polls.
SharedFile::Turn SharedFile::Lock(int lock_file, unsigned patience_ms) {
  if (lock_file == -1) return IsForbidden(errno) || errno == ENOENT ? Turn::kNobodys : Turn::kOthers;
  const std::uint64_t deadline_ms = gettickcount() + patience_ms;
  while (flock(lock_file, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return Turn::kNobodys;  // the file system has no locks
    if (gettickcount() >= deadline_ms) return Turn::kOthers;
    std::this_thread::sleep_for(kRetry);
  }
  return Turn::kMine;
}

}  // namespace gxbase
