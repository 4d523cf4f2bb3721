#include "base/file_stream.h"

#include <errno.h>
#include <sys/stat.h>

namespace gxbase {

namespace {

// The result of either direction: `moved` bytes of `size`, or the reason for zero bytes.
StreamResult Report(std::size_t size, std::size_t moved, bool at_end, std::size_t* count, int* error) {
  if (size != 0 && moved == 0) {
    if (at_end) return SR_EOS;
    if (error != nullptr) *error = errno;
    return SR_ERROR;
  }
  if (count != nullptr) *count = moved;
  return SR_SUCCESS;
}

}  // namespace

bool FileStream::Open(const std::string& path, const char* mode, int* error) {
  Close();
  file_.reset(std::fopen(path.c_str(), (std::string(mode) + "e").c_str()));  // e: close on exec
  if (file_ == nullptr && error != nullptr) *error = errno;
  return file_ != nullptr;
}

StreamResult FileStream::Read(void* buffer, std::size_t size, std::size_t* read, int* error) {
  if (file_ == nullptr) return SR_EOS;
  const std::size_t moved = std::fread(buffer, 1, size, file_.get());
  return Report(size, moved, std::feof(file_.get()) != 0, read, error);
}

StreamResult FileStream::Write(const void* data, std::size_t size, std::size_t* written, int* error) {
  if (file_ == nullptr) return SR_EOS;
  return Report(size, std::fwrite(data, 1, size, file_.get()), false, written, error);
}

bool FileStream::GetSize(std::size_t* size) const {
  if (file_ == nullptr) return false;
  struct stat status;
  if (fstat(fileno(file_.get()), &status) != 0) return false;
  if (size != nullptr) *size = static_cast<std::size_t>(status.st_size);
  return true;
}

bool FileStream::Close() { return file_ == nullptr || std::fclose(file_.release()) == 0; }

}  // namespace gxbase
