// A file of the standard I/O library.
#ifndef GX_BASE_FILE_STREAM_H
#define GX_BASE_FILE_STREAM_H

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>

namespace gxbase {

enum StreamResult : int {
  SR_ERROR = 0,
  SR_SUCCESS = 1,
  SR_EOS = 3,
};

// Threads: one at a time. Closes the file when destroyed.
class FileStream {
 public:
  // Closes an open file first. False: `*error` is the errno (if `error` is not null).
  bool Open(const std::string& path, const char* mode, int* error);
  // SR_SUCCESS: `*read` bytes came, at most `size`. SR_EOS: no file is open, or its end. SR_ERROR: see
  // `*error`. `read` and `error` may be null.
  StreamResult Read(void* buffer, std::size_t size, std::size_t* read, int* error);
  StreamResult Write(const void* data, std::size_t size, std::size_t* written, int* error);
  // Size of the open file in bytes.
  bool GetSize(std::size_t* size) const;
  // False: some of what was written could not be saved. True without an open file.
  bool Close();

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Closer> file_;
};

}  // namespace gxbase

#endif  // GX_BASE_FILE_STREAM_H
