// A file that several processes read, change and replace.
#ifndef GX_BASE_SHARED_FILE_H
#define GX_BASE_SHARED_FILE_H

#include <string>

namespace gxbase {

// One process's turn to change the file: create it before reading the file, destroy it after writing. It holds
// a lock on an empty file beside it, "<path>.lock", which stays; other writers wait meanwhile. Readers need no
// turn, because the file is replaced as a whole.
//
// The file's folder must allow create, write, lock, rename and remove. Elsewhere writers do not wait for each
// other, and the file is written in place if that is allowed.
// Threads: one at a time. Threads of one process exclude each other, too.
class SharedFile {
 public:
  static constexpr unsigned kPatienceMs = 2000;

  // Waits for the turn, for at most `patience_ms`.
  explicit SharedFile(const std::string& path, unsigned patience_ms = kPatienceMs);
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;
  ~SharedFile();

  // Replaces the whole text and keeps the permissions. Other processes, and readers after a crash in the middle
  // of this, find either the old text or the new one. Returns false, with the old text still there, when the
  // turn did not come in time or the disk is full. (When the file is written in place, a failure loses the old
  // text.)
  bool Write(const std::string& text);

 private:
  enum class Turn {
    kMine,
    kOthers,   // another process has the turn and the time is up
    kNobodys,  // the folder or the file system has no locks
  };

  static Turn Lock(int lock_file, unsigned patience_ms);

  const std::string path_;
  const int lock_file_;  // -1: could not be opened
  const Turn turn_;
};

}  // namespace gxbase

#endif  // GX_BASE_SHARED_FILE_H
