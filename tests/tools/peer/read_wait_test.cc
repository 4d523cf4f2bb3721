#include "peer/read_wait.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <memory>
#include <string>

namespace gxtool {
namespace {

using asio::ip::tcp;

// A connection to itself: what `sender` sends lies unread in `socket`.
struct Reader final : ReadWait::Owner, std::enable_shared_from_this<Reader> {
  explicit Reader(asio::io_context& io) : socket(io), sender(io), wait(io, socket) {
    asio::basic_socket_acceptor<tcp, Executor> acceptor(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
    sender.connect(acceptor.local_endpoint());
    acceptor.accept(socket);
  }

  void OnReadReady() override { ready = true; }

  void Wait(std::size_t got) {
    wait.Start(got, shared_from_this());
    asio::io_context& io = socket.get_executor().context();
    while (!ready && io.run_one_for(std::chrono::seconds(10)) != 0) {
    }
    EXPECT_TRUE(ready);
  }

  bool WasPatient() {
    int low_water = 0;
    socklen_t size = sizeof low_water;
    getsockopt(socket.native_handle(), SOL_SOCKET, SO_RCVLOWAT, &low_water, &size);
    return low_water > 1;
  }

  TcpSocket socket;
  TcpSocket sender;
  ReadWait wait;
  bool ready = false;
};

class ReadWaitTest : public testing::Test {
 protected:
  void TearDown() override {
    reader_->socket.close();
    io_.restart();
    io_.run();
  }

  asio::io_context io_{1};
  std::shared_ptr<Reader> reader_ = std::make_shared<Reader>(io_);
};

TEST_F(ReadWaitTest, EveryByteCountsBehindAFew) {
  asio::write(reader_->sender, asio::buffer("x", 1));
  reader_->Wait(ReadWait::kMuchBytes - 1);
  EXPECT_FALSE(reader_->WasPatient());
  EXPECT_EQ(reader_->socket.available(), 1U);
}

}  // namespace
}  // namespace gxtool
