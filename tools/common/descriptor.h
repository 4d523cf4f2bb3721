// Descriptors that close themselves, and functions that create them.
#ifndef GX_COMMON_DESCRIPTOR_H
#define GX_COMMON_DESCRIPTOR_H

#include <utility>

namespace gxtool {

// Owns one descriptor, or is empty (-1).
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~Descriptor() { Reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Returns `result`, the result of a system call. Throws std::system_error with `what` (the attempted operation)
// when the call failed.
int Checked(int result, const char* what);

struct Pipe {
  Descriptor read;
  Descriptor write;
};

// All of these are close-on-exec at both ends. They throw std::system_error when the system has no more
// descriptors.
Pipe MakePipe();
std::pair<Descriptor, Descriptor> MakeSocketPair();
// A pipe made of two local sockets, for a third of the processor time. The difference: a program cannot open a
// socket by name (/dev/stdin).
Pipe MakeSocketPipe();

// A close-on-exec duplicate of `fd`, numbered above 2.
Descriptor Duplicate(int fd);

void SetNonBlocking(int fd, bool on);

// Opens /dev/null on each closed descriptor of 0, 1 and 2, so that descriptors opened later are not used as
// standard input or output. Throws std::system_error.
void FillStandardDescriptors();

// Moves standard output to a descriptor above 2 and redirects 1 to standard error: libraries print to 1, while
// programs read the output of gx-ssh.
Descriptor TakeStandardOutput();

// Moves standard input to a descriptor above 2 and leaves /dev/null at 0. The module may shut down descriptor 0
// in a race, so 0 must stay unused.
Descriptor TakeStandardInput();

}  // namespace gxtool

#endif  // GX_COMMON_DESCRIPTOR_H
