// A local client that talks to a far side which sends back what it gets.
#ifndef GX_TESTS_SUPPORT_ECHO_CLIENT_H
#define GX_TESTS_SUPPORT_ECHO_CLIENT_H

#include <cstdint>
#include <string>

#include "support/pattern.h"
#include "support/tcp_client.h"

namespace gxtest {

// Everything it says is one pattern, so that the far side can tell when something of it is missing.
class EchoClient : public TcpClient {
 public:
  explicit EchoClient(const std::string& address) : TcpClient(address) {}

  // The connection carries bytes both ways.
  bool Echoes(std::size_t length = 2000) {
    const std::string bytes = Pattern(length, 1, said_);
    said_ += length;
    return Send(bytes) && Receive(length) == bytes;
  }

 private:
  std::uint64_t said_ = 0;
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_ECHO_CLIENT_H
