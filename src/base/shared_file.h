// A file that several processes read, change and write back.
#ifndef GX_BASE_SHARED_FILE_H
#define GX_BASE_SHARED_FILE_H

#include <string>

namespace gxbase {

// One turn of one process, from before it reads the file until it has written it. Others that change the file
// wait meanwhile: each holds a lock on an empty file beside it, "<path>.lock", which stays. Whoever only reads
// needs no turn, since the file is replaced as a whole.
//
// Uses of the system in the file's folder: create, write, lock, rename, remove. Where the folder does not allow
// them nobody has to wait, and the file is written in place, if that is allowed.
// Threads: one at a time. Threads of one process exclude each other, too.
class SharedFile {
 public:
  static constexpr unsigned kPatienceMs = 2000;

  // Waits for its turn, but not longer than `patience_ms`.
  explicit SharedFile(const std::string& path, unsigned patience_ms = kPatienceMs);
  SharedFile(const SharedFile&) = delete;
  SharedFile& operator=(const SharedFile&) = delete;
  ~SharedFile();

  // Replaces the whole text and keeps the permissions. Another process, and one that comes after a crash in the
  // middle of this, finds either the old text or the new one. False: the old one stays, since the others took
  // too long, or there is no room on the disk. (In place, a failure costs the old text.)
  bool Write(const std::string& text);

 private:
  enum class Turn {
    kMine,
    kOthers,   // it did not come in time
    kNobodys,  // no lock can be had here
  };

  static Turn Lock(int lock_file, unsigned patience_ms);

  const std::string path_;
  const int lock_file_;  // -1: none can be had
  const Turn turn_;
};

}  // namespace gxbase

#endif  // GX_BASE_SHARED_FILE_H
