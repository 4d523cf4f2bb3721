// Descriptors that close themselves, and how the programs make them.
#ifndef GX_COMMON_DESCRIPTOR_H
#define GX_COMMON_DESCRIPTOR_H

#include <utility>

namespace gxtool {

// Owns one descriptor, or none (-1).
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

// `result`, that of a system call. Throws std::system_error, with `what` was tried, when that has failed.
int Checked(int result, const char* what);

struct Pipe {
  Descriptor read;
  Descriptor write;
};

// Each of these is close-on-exec at both ends. They throw std::system_error when the system has no more to
// give.
Pipe MakePipe();
std::pair<Descriptor, Descriptor> MakeSocketPair();
// A pipe made of two local sockets: the same bytes for a third of the processor time. It differs where a
// program opens its standard input or output by name (/dev/stdin), which sockets refuse.
Pipe MakeSocketPipe();

// A copy of `fd` above the standard three, close-on-exec.
Descriptor Duplicate(int fd);

void SetNonBlocking(int fd, bool on);

// Puts /dev/null where 0, 1 or 2 is closed, so that nothing else that is opened later lands there and is then
// taken for standard input or output. Throws std::system_error.
void FillStandardDescriptors();

// Moves standard output to a descriptor above the standard three and leaves standard error at 1: libraries
// print there, and what gx-ssh prints is read by programs.
Descriptor TakeStandardOutput();

// Moves standard input to a descriptor above the standard three and leaves /dev/null at 0. The module may shut
// down descriptor 0 in an unlucky moment, so nothing of value may stay there.
Descriptor TakeStandardInput();

}  // namespace gxtool

#endif  // GX_COMMON_DESCRIPTOR_H
