// Non-blocking use of a descriptor that the caller owns.
#ifndef GX_COMMON_BORROWED_FD_H
#define GX_COMMON_BORROWED_FD_H

namespace gxtool {

// Makes the descriptor non-blocking for its lifetime and restores the mode at the end: the mode belongs to the
// open file, which other processes may share (a terminal, for example).
class BorrowedFd {
 public:
  // Throws std::system_error when `fd` is not open.
  explicit BorrowedFd(int fd);
  BorrowedFd(const BorrowedFd&) = delete;
  BorrowedFd& operator=(const BorrowedFd&) = delete;
  ~BorrowedFd();

  // A close-on-exec duplicate, owned by the caller. Throws std::system_error.
  int Duplicate() const;

 private:
  const int fd_;
  const int flags_;
};

}  // namespace gxtool

#endif  // GX_COMMON_BORROWED_FD_H
