#include "base/file_stream.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/temp_dir.h"

namespace gxbase {
namespace {

TEST(FileStreamTest, ReadsBackWhatItWroteAndTellsWhyNot) {
  const TempDir dir;
  const std::string path = dir.path() + "/file";
  FileStream file;
  std::size_t count = 77;
  int error = 0;
  char buffer[16] = {};
  EXPECT_EQ(file.Read(buffer, sizeof buffer, &count, &error), SR_EOS);
  EXPECT_EQ(file.Write("x", 1, &count, &error), SR_EOS);
  EXPECT_FALSE(file.GetSize(&count));
  EXPECT_FALSE(file.Open(path, "rb", &error));
  EXPECT_EQ(error, ENOENT);
  EXPECT_EQ(count, 77u);

  const int next = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(next);
  ASSERT_TRUE(file.Open(path, "wb+", &error));
  EXPECT_EQ(fcntl(next, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC) << "for programs that the host starts";
  EXPECT_EQ(file.Write("some\0text", 9, &count, nullptr), SR_SUCCESS);
  EXPECT_EQ(count, 9u);

  ASSERT_TRUE(file.Open(path, "rb", nullptr)) << "this closes, and so saves, what was open";
  EXPECT_TRUE(file.GetSize(&count));
  EXPECT_EQ(count, 9u);
  EXPECT_EQ(file.Read(buffer, sizeof buffer, &count, &error), SR_SUCCESS) << "a short read is no failure";
  EXPECT_EQ(std::string(buffer, count), std::string("some\0text", 9));
  EXPECT_EQ(file.Read(buffer, sizeof buffer, &count, &error), SR_EOS);
  EXPECT_EQ(file.Read(buffer, 0, &count, &error), SR_SUCCESS);
  EXPECT_EQ(file.Write("x", 1, nullptr, &error), SR_ERROR) << "opened for reading";
  EXPECT_EQ(error, EBADF);

  ASSERT_TRUE(file.Open(path, "wb+", nullptr));
  EXPECT_TRUE(file.GetSize(&count));
  EXPECT_EQ(count, 0u) << "writing begins anew";
  ASSERT_TRUE(file.Open(dir.path(), "rb", nullptr));
  EXPECT_EQ(file.Read(buffer, sizeof buffer, &count, &error), SR_ERROR);
  EXPECT_EQ(error, EISDIR);
}

}  // namespace
}  // namespace gxbase
