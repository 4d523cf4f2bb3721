#include "base/file_stream.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

namespace talk_base {
namespace {

class FileStreamTest : public testing::Test {
 protected:
  const TempDir dir_;
  const std::string path_ = dir_.path() + "/file";
  FileStream file_;
  std::size_t count_ = 77;
  int error_ = 0;
  char buffer_[16] = {};
};

TEST_F(FileStreamTest, WithoutAFileNothingIsTouched) {
  EXPECT_EQ(file_.Read(buffer_, sizeof buffer_, &count_, &error_), SR_EOS);
  EXPECT_EQ(file_.Write("x", 1, &count_, &error_), SR_EOS);
  EXPECT_FALSE(file_.GetSize(&count_));
  EXPECT_FALSE(file_.Open(path_, "rb", &error_));
  EXPECT_EQ(error_, ENOENT);
  EXPECT_FALSE(file_.Open(path_, "rb", nullptr));
  EXPECT_EQ(count_, 77u);
}

TEST_F(FileStreamTest, ReadsBackWhatItWrote) {
  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  ASSERT_TRUE(file_.Open(path_, "wb+", &error_));
  EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << "for programs that the host starts";
  EXPECT_EQ(file_.Write("some\0text", 9, &count_, &error_), SR_SUCCESS);
  EXPECT_EQ(count_, 9u);
  EXPECT_EQ(file_.Write("", 0, nullptr, nullptr), SR_SUCCESS);

  ASSERT_TRUE(file_.Open(path_, "rb", &error_)) << "this closes, and so saves, what was open";
  EXPECT_TRUE(file_.GetSize(&count_));
  EXPECT_EQ(count_, 9u);
  EXPECT_EQ(file_.Read(buffer_, sizeof buffer_, &count_, &error_), SR_SUCCESS) << "a short read is no failure";
  EXPECT_EQ(std::string(buffer_, count_), std::string("some\0text", 9));
  EXPECT_EQ(file_.Read(buffer_, sizeof buffer_, &count_, &error_), SR_EOS);
  EXPECT_EQ(file_.Read(buffer_, 0, &count_, &error_), SR_SUCCESS);
  EXPECT_EQ(count_, 0u);

  EXPECT_EQ(file_.Write("x", 1, nullptr, &error_), SR_ERROR) << "opened for reading";
  EXPECT_EQ(error_, EBADF);
}

TEST_F(FileStreamTest, WritingTruncatesAndADirectoryCannotBeRead) {
  ASSERT_TRUE(file_.Open(path_, "wb+", nullptr));
  ASSERT_EQ(file_.Write("long text", 9, nullptr, nullptr), SR_SUCCESS);
  ASSERT_TRUE(file_.Open(path_, "wb+", nullptr));
  EXPECT_TRUE(file_.GetSize(&count_));
  EXPECT_EQ(count_, 0u);

  ASSERT_TRUE(file_.Open(dir_.path(), "rb", nullptr));
  EXPECT_EQ(file_.Read(buffer_, sizeof buffer_, &count_, &error_), SR_ERROR);
  EXPECT_EQ(error_, EISDIR);
}

}  // namespace
}  // namespace talk_base
