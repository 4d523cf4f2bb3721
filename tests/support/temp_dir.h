// A directory of a test's own, gone with everything in it at the end of the scope, and the text of a file.
#ifndef GX_TESTS_SUPPORT_TEMP_DIR_H
#define GX_TESTS_SUPPORT_TEMP_DIR_H

#include <filesystem>

#include "support/test.h"

inline std::string FileText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

class TempDir {
 public:
  TempDir() : path_((std::filesystem::temp_directory_path() / "gx-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

#endif  // GX_TESTS_SUPPORT_TEMP_DIR_H
