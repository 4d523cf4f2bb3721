// ExitInstance at bad moments. Each case ends in the fixture's check that no thread, descriptor or object is
// left.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/forwarding.h"

namespace {

using gxtest::ConnectionType;
using gxtest::Encode;
using gxtest::Pattern;
using gxtest::TcpClient;

class ShutdownTest : public gxtest::ForwardingTest {};

TEST_F(ShutdownTest, WhileIdle) {
  for (int round = 0; round < 50; ++round) Start({});
}

TEST_F(ShutdownTest, InsideAFrame) {
  const std::string wire = Encode({ConnectionType::Data, 1, std::string(20, 'x')});
  for (std::size_t cut = 1; cut < wire.size(); ++cut) {
    Start({});
    stream_->Send(wire.substr(0, cut));
    ASSERT_TRUE(stream_->WaitUntilRead());
    Stop();
  }
}

// Data both ways, connections that come and go, a list that opens ports, a far side that stops reading.
TEST_F(ShutdownTest, UnderLoad) {
  const std::string block = Pattern(30'000);
  for (int round = 0; round < 40; ++round) {
    Start({});
    std::vector<Connection> connections;
    for (int i = 0; i < 4; ++i) connections.push_back(Connect());
    std::atomic<bool> stop{false};
    std::thread far([&] {
      for (int i = 0; !stop; ++i) {
        for (const auto& connection : connections) stream_->Send({ConnectionType::Data, connection.id, block});
        if (i == 3) stream_->Send({ConnectionType::ChannelList, 0, "name=a&addr=h%3A1;name=b&addr=h%3A2;"});
        while (!stop && stream_->Receive(std::chrono::milliseconds(1))) {
        }
        if (i == round % 8) stream_->Behave({.capacity = 1});
      }
    });
    std::thread locals([&] {
      for (int i = 0; !stop; ++i) {
        for (auto& connection : connections) {
          send(connection.local.socket_handle(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        if (i < 50) TcpClient passing(address_);  // fewer than the backlog, which may stay full
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(round % 10));  // only to vary the moment
    client_->ExitInstance();
    EXPECT_FALSE(TcpClient(address_).IsConnected());
    stop = true;
    far.join();
    locals.join();
    for (auto& connection : connections) EXPECT_TRUE(connection.local.WaitForEnd());
  }
}

// Released without ExitInstance: the stream is not closed first, so its end has to come from the host.
TEST_F(ShutdownTest, WithoutExitInstance) {
  Connection connection = Connect();
  stream_->End();
  client_ = nullptr;
  EXPECT_TRUE(connection.local.WaitForEnd());
  EXPECT_FALSE(stream_->IsClosed());
}

}  // namespace
