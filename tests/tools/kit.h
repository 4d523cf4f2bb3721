// Descriptors and targets for the tests of the tools.
#ifndef GX_TESTS_TOOLS_KIT_H
#define GX_TESTS_TOOLS_KIT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "common/descriptor.h"
#include "support/io.h"

namespace gxtool {

using namespace gxtest;  // the tests of the tools use what all tests use

class LocalTarget {
 public:
  explicit LocalTarget(int type = SOCK_STREAM) : fd_(::socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address_;
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address_), length), 0);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(::listen(fd_.get(), 1024), 0);
    }
    EXPECT_EQ(::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address_), &length), 0);
  }

  std::string Address() const { return "127.0.0.1:" + std::to_string(port()); }
  int port() const { return ntohs(address_.sin_port); }
  int fd() const { return fd_.get(); }
  bool HasCaller(int bound_ms) const { return WaitFor(fd_.get(), POLLIN, bound_ms); }
  Descriptor Accept() const {
    return Descriptor(HasCaller(kBoundMs) ? ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
  }

 private:
  Descriptor fd_;
  sockaddr_in address_{};
};

}  // namespace gxtool

#endif  // GX_TESTS_TOOLS_KIT_H
