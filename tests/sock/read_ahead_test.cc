#include "sock/read_ahead.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "support/pattern.h"

namespace {

constexpr std::size_t kReadBytes = 4096;

class ReadAheadTest : public testing::Test {
 protected:
  ReadAheadTest() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_), 0); }
  ~ReadAheadTest() override {
    for (const int fd : ends_) {
      if (fd >= 0) close(fd);
    }
  }

  // Sends so many bytes more, which go on where the last ones ended.
  void Send(std::size_t count) {
    const std::string bytes = gxtest::Pattern(count, 1, sent_.size());
    sent_ += bytes;
    EXPECT_EQ(send(ends_[1], bytes.data(), count, 0), static_cast<ssize_t>(count));
  }

  // Receives at most `length` bytes, which must be the next ones, and returns how many there were.
  ssize_t Receive(std::size_t length) {
    std::string bytes(length, '\0');
    const ssize_t got = ahead_.Receive(ends_[0], bytes.data(), length, 0);
    if (got > 0) {
      EXPECT_EQ(bytes.substr(0, static_cast<std::size_t>(got)),
                sent_.substr(received_, static_cast<std::size_t>(got)));
      received_ += static_cast<std::size_t>(got);
    }
    return got;
  }

  int InTheSocket() {
    int bytes = 0;
    EXPECT_EQ(ioctl(ends_[0], FIONREAD, &bytes), 0);
    return bytes;
  }

  CReadAhead ahead_;
  int ends_[2];
  std::string sent_;
  std::size_t received_ = 0;
};

TEST_F(ReadAheadTest, GivesWhatTheSocketWouldHaveGiven) {
  Send(10 * kReadBytes + 7);
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(Receive(kReadBytes), static_cast<ssize_t>(kReadBytes));
    EXPECT_FALSE(ahead_.drained());
    EXPECT_EQ(InTheSocket() == 0, i > 0) << "the second read takes it all";
  }
  EXPECT_EQ(Receive(kReadBytes), 7);
  EXPECT_TRUE(ahead_.drained());
  EXPECT_EQ(Receive(kReadBytes), -1);
  EXPECT_EQ(errno, EAGAIN);

  Send(100);
  EXPECT_EQ(Receive(60), 60);
  EXPECT_EQ(Receive(60), 40);
  EXPECT_TRUE(ahead_.drained());

  // More than it keeps, the end behind it, and sizes of all kinds.
  Send(150'000);
  shutdown(ends_[1], SHUT_WR);
  for (std::size_t length = 1; received_ < sent_.size(); length = length * 3 % 10'007) {
    const auto due = static_cast<ssize_t>(std::min(length, sent_.size() - received_));
    ASSERT_EQ(Receive(length), due);
  }
  EXPECT_EQ(Receive(kReadBytes), 0);
}

// The failure is met while bytes are kept that are not enough.
TEST_F(ReadAheadTest, BytesComeBeforeAFailureAndTheFailureIsNotLost) {
  constexpr ssize_t kOddRead = 5000;
  EXPECT_EQ(send(ends_[0], "x", 1, 0), 1);
  Send(2 * kOddRead + 60 * 1024);
  close(std::exchange(ends_[1], -1));  // with a byte unread: a reset
  while (received_ + kOddRead <= sent_.size()) ASSERT_EQ(Receive(kOddRead), kOddRead);
  EXPECT_EQ(Receive(kOddRead), static_cast<ssize_t>(sent_.size() % kOddRead));
  EXPECT_EQ(Receive(kOddRead), -1);
  EXPECT_EQ(errno, ECONNRESET);
}

}  // namespace
