// A file opened with the standard I/O library.
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

// Threads: one at a time. The destructor closes the file.
class FileStream {
 public:
  // Closes an open file first. Returns false with the errno in `*error` (which may be null).
  bool Open(const std::string& path, const char* mode, int* error);
  // SR_SUCCESS: `*read` bytes were read, at most `size`. SR_EOS: no file is open, or the file has ended.
  // SR_ERROR: `*error` has the errno. `read` and `error` may be null.
  StreamResult Read(void* buffer, std::size_t size, std::size_t* read, int* error);
  StreamResult Write(const void* data, std::size_t size, std::size_t* written, int* error);
  // Stores the size of the open file, in bytes.
  bool GetSize(std::size_t* size) const;
  // Returns false when some written data could not be saved; true when no file is open.
  bool Close();

 private:
  struct Closer {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };
  std::unique_ptr<std::FILE, Closer> file_;
};

}  // namespace gxbase

#endif  // GX_BASE_FILE_STREAM_H
