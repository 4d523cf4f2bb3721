// What a socket has given beyond what was asked for.
#ifndef GX_SOCK_READ_AHEAD_H
#define GX_SOCK_READ_AHEAD_H

#include <sys/types.h>

#include <cstddef>
#include <memory>

// While a sender is busy, reads of a few kilobytes would cost a system call, and an acknowledgement to the
// sender, for each of them. So behind a read that was filled the next one takes all that the socket has, and
// those after it are served from here, with the sizes that the socket would have given them. There is memory
// only for as long as there is something in it. Threads: one caller at a time.
class CReadAhead {
 public:
  // As recv, always for the same socket; `flags` are 0 or MSG_PEEK. Without memory it reads no further than
  // asked.
  ssize_t Receive(int socket, char* data, std::size_t length, int flags);
  // Nothing is kept here.
  bool empty() const { return kept_ == 0; }
  // The last read took less than it could: the socket is empty, too.
  bool drained() const { return empty() && emptied_; }
  // Forgets what is kept.
  void Clear();

 private:
  ssize_t ReceiveAhead(int socket, char* data, std::size_t length);
  std::size_t Take(char* data, std::size_t length, bool peek);

  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t kept_ = 0;
  bool filled_ = false;   // the last read from the socket
  bool emptied_ = false;  // the socket, by that read
  int error_ = 0;         // the errno that the next call reports
};

#endif  // GX_SOCK_READ_AHEAD_H
