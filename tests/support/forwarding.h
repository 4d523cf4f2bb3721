// A forwarding client on a scripted plugin stream.
#ifndef GX_TESTS_SUPPORT_FORWARDING_H
#define GX_TESTS_SUPPORT_FORWARDING_H

#include "portfwd/port_forward_client.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/pattern.h"
#include "support/plugin_stream.h"
#include "support/tcp_client.h"

namespace gxtest {

using gxmod::ConnectionType;

// The client runs, and one channel "ssh" listens. Everything ends before the leaks are counted.
class ForwardingTest : public LeakGate {
 protected:
  void SetUp() override { Start({}); }

  void TearDown() override {
    Stop();
    LeakGate::TearDown();
  }

  void Start(const CPortForwardClientRaw::Limits& limits) {
    Stop();
    client_ = CRefObj<CPortForwardClientRaw>(new CPortForwardClientRaw(limits));
    RunOnAFreshStream();
  }

  void RunOnAFreshStream() {
    stream_ = CRefObj<PluginStream>(new PluginStream);
    ASSERT_EQ(client_->InitInstance(stream_.get()), kGXModOk);
    ASSERT_EQ(client_->Run(), kGXModOk);
    IChannelRaw* channel = client_->NewChannel("ssh", "", "10.0.0.1:22");
    ASSERT_NE(channel, nullptr);
    address_ = channel->get_LocalAddress();
    ASSERT_TRUE(stream_->Receive(ConnectionType::ChannelList));
  }

  void Stop() {
    if (client_) client_->ExitInstance();
    client_ = nullptr;
    stream_ = nullptr;
  }

  // A local connection and its id.
  struct Connection {
    TcpClient local;
    std::uint32_t id;
  };
  Connection Connect() {
    TcpClient local(address_);
    const auto frame = stream_->Receive();
    EXPECT_TRUE(frame && frame->type == ConnectionType::Connect);
    return {std::move(local), frame ? frame->id : 0};
  }

  // Waits until the far side has `length` bytes of a connection's data, and returns them.
  std::string ReceiveData(std::uint32_t id, std::size_t length) {
    std::string data;
    while (data.size() < length) {
      const auto frame = stream_->Receive(ConnectionType::Data);
      if (!frame) break;
      if (frame->id == id) data += frame->payload;
    }
    return data;
  }

  // Sends so much to a client that takes nothing that the module holds `bytes` for it. Then the system's
  // buffers are full.
  void Fill(const Connection& stalled, std::uint64_t bytes) {
    const CRefObj<MyHandler> connection = client_->FindStream(stalled.id);
    ASSERT_TRUE(connection);
    for (int blocks = 0; connection->Owed() < bytes; ++blocks) {
      stream_->Send({ConnectionType::Data, stalled.id, std::string(64 * 1024, 'x')});
      ASSERT_TRUE(blocks < 1000 && stream_->WaitUntilRead());
    }
  }

  LogCapture log_;
  CRefObj<PluginStream> stream_;
  CRefObj<CPortForwardClientRaw> client_;
  std::string address_;  // of the channel's port
};

}  // namespace gxtest

#endif  // GX_TESTS_SUPPORT_FORWARDING_H
