// A name server of the test's own.
#ifndef GX_TESTS_NAME_SERVER_H
#define GX_TESTS_NAME_SERVER_H

#include <arpa/inet.h>
#include <sys/socket.h>

#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {

// Every name has the one address 127.0.0.1, but for those that begin with "dead": of them it says nothing.
class NameServer {
 public:
  NameServer() : fd_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    EXPECT_EQ(::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    address_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread_ = std::thread([this] { Serve(); });
  }
  ~NameServer() {
    ::shutdown(fd_.get(), SHUT_RDWR);
    thread_.join();
  }

  const std::string& address() const { return address_; }

 private:
  void Serve() {
    char question[512];
    sockaddr_in client{};
    socklen_t length = sizeof client;
    ssize_t count = 0;
    while ((count = ::recvfrom(fd_.get(), question, sizeof question, 0, reinterpret_cast<sockaddr*>(&client),
                               &length)) > 12) {
      const std::string reply = Reply({question, static_cast<std::size_t>(count)});
      ::sendto(fd_.get(), reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&client), length);
    }
  }

  // A header of 12 bytes, then the name in labels, the type (A: 1) and the class.
  static std::string Reply(std::string_view question) {
    if (question.substr(13, 4) == "dead") return {};
    std::string reply(question.substr(0, question.find('\0', 12) + 5));
    const bool has_address = reply[reply.size() - 3] == 1;
    reply.replace(2, 10, std::string("\x81\x80\0\1\0\0\0\0\0\0", 10));
    if (!has_address) return reply;
    reply[7] = 1;
    return reply + std::string("\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4\x7f\0\0\1", 16);
  }

  const Descriptor fd_;
  std::string address_;
  std::thread thread_;
};

}  // namespace gxtool

#endif  // GX_TESTS_NAME_SERVER_H
