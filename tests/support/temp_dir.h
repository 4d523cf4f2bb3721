// A directory of a test's own, gone with everything in it at the end of the scope.
#ifndef GX_TESTS_SUPPORT_TEMP_DIR_H
#define GX_TESTS_SUPPORT_TEMP_DIR_H

#include <filesystem>

#include "support/test.h"

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
