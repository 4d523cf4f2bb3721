// A second number for somebody else's descriptor.
#ifndef GX_COMMON_BORROWED_FD_H
#define GX_COMMON_BORROWED_FD_H

namespace gxtool {

// Makes the descriptor non-blocking for its lifetime. That mode belongs to the open file, which other processes
// may share (the terminal, for one), so it is put back at the end.
class BorrowedFd {
 public:
  // Throws std::system_error when `fd` is not open.
  explicit BorrowedFd(int fd);
  BorrowedFd(const BorrowedFd&) = delete;
  BorrowedFd& operator=(const BorrowedFd&) = delete;
  ~BorrowedFd();

  // A close-on-exec duplicate, which the caller owns. Throws std::system_error.
  int Duplicate() const;

 private:
  const int fd_;
  const int flags_;
};

}  // namespace gxtool

#endif  // GX_COMMON_BORROWED_FD_H
