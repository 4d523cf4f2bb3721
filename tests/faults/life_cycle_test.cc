// The life of a plugin in a host's hands: ends at bad moments, calls in any order.

#include "module/ssh_client.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/host_objects.h"
#include "support/shortage.h"
#include "support/test.h"

namespace gxtest {
namespace {

class LifeCycle : public ForwardingTest {};

// Clients send without end and take what comes, or nothing at all. The far side floods, opens ports, and stops
// reading or sending. In the middle of all that the client is stopped.
TEST_F(LifeCycle, ExitAtAnyMomentLeavesNothing) {
  const std::string block = Pattern(30'000);
  std::minstd_rand engine(1);
  const auto random = [&engine](unsigned below) { return static_cast<unsigned>(engine()) % below; };
  for (int round = Rounds(25, 500); round > 0 && !HasFailure(); --round) {
    Start({.connection_bytes = random(2) == 0 ? 100'000U : 64U << 20});
    PluginStream::Behaviour behaviour;
    if (random(2) == 0) behaviour.capacity = 1 + random(50'000);
    if (random(2) == 0) behaviour.send_capacity = 1 + random(200'000);
    if (random(4) == 0) behaviour.cut_seed = 1;
    const std::uint64_t moment = random(500'000);  // in bytes that have come up
    const unsigned stall = random(4);              // 1: the road in stops; 2: the road out does
    std::atomic<bool> stop{false};

    // Answers with more than the clients read, until it takes no more frames.
    FarSide far(stream_, [&](PluginStream& stream, const Frame& frame) {
      if (frame.type == ConnectionType::Connect) {
        stream.Send({ConnectionType::ChannelList, 0, "name=a&addr=h%3A1;name=b&addr=h%3A2;"});
      }
      if (frame.type != ConnectionType::Close) stream.Send({ConnectionType::Data, frame.id, block});
    });
    stream_->Behave(behaviour);
    std::vector<TcpClient> clients;
    for (int i = 0; i < 6; ++i) clients.emplace_back(address_);
    std::thread locals([&] {
      for (int i = 0; !stop; ++i) {
        for (const TcpClient& client : clients) {
          send(client.socket_handle(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        }
        std::array<char, 65536> taken;
        recv(clients[0].socket_handle(), taken.data(), taken.size(), MSG_DONTWAIT);
        if (i % 8 == 0 && i < 400) TcpClient passing(address_);
      }
    });
    Eventually([&] { return far.Total().bytes >= moment; }, std::chrono::milliseconds(100));  // or all is full
    if (stall == 1) behaviour.read_at_most = 0;
    if (stall == 2) behaviour.capacity = 0;
    stream_->Behave(behaviour);
    client_->ExitInstance();
    EXPECT_FALSE(AnyPortListens());
    stop = true;
    locals.join();
    far.Stop();
    for (TcpClient& client : clients) EXPECT_TRUE(client.WaitForEnd()) << "round " << round;
  }
}

// A host with 1,100 open files: what select cannot watch is refused with a line, what it can is served.
TEST_F(LifeCycle, AHostOfManyFilesIsRefusedWithALine) {
  const FarSide far(stream_);
  TcpClient before(address_);
  ASSERT_TRUE(before.Echoes());
  {
    const TakenDescriptors files(1'100);
    for (int i = 0; i < 20; ++i) {
      TcpClient refused(address_);
      EXPECT_TRUE(refused.WaitForEnd());
    }
    EXPECT_TRUE(before.Echoes());
    const auto error = [](const char* text) { return testing::Pair(kGXModLogError, testing::HasSubstr(text)); };
    EXPECT_THAT(log_.Lines(), testing::Contains(error("connection refused")).Times(20));
    IChannelRaw* deaf = client_->NewChannel("late", "", "10.0.0.1:22");
    ASSERT_NE(deaf, nullptr);
    EXPECT_STREQ(deaf->get_LocalAddress(), "") << "no port that nobody answers on";
    EXPECT_THAT(log_.Lines(), testing::Contains(error("listening")));
  }
  EXPECT_TRUE(before.Echoes());
  TcpClient after(address_);
  EXPECT_TRUE(after.Echoes());
}

class CallOrders : public LeakGate {};

// Letters: I InitInstance, N the same with null, T with a stream whose Close throws, R Run, E ExitInstance, F
// and X the same with a listener that throws. The host ends the old stream before a second InitInstance.
TEST_F(CallOrders, EveryOrderHasItsResults) {
  const struct {
    std::string_view calls;
    std::vector<std::uint32_t> results;
    bool listens;  // at the end
  } orders[] = {
      {"E", {0}, false},
      {"R", {1}, false},
      {"IRRE", {0, 0, 0, 0}, false},
      {"IER", {0, 0, kGXModFail}, false},
      {"IREEIR", {0, 0, 0, 0, 0, 0}, true},
      {"IRIR", {0, 0, 0, 0}, true},
      {"IRNR", {0, 0, 0, 0}, true},
      {"IF", {0, kGXModFail}, false},
      {"TRE", {0, 0, 0}, false},
      {"IRX", {0, 0, 0}, false},
  };
  const LogCapture log;
  for (const auto& order : orders) {
    SCOPED_TRACE(order.calls);
    CRefObj<PluginStream> stream;
    const CRefObj<PluginListener> listener(new PluginListener("h:1"));
    const CRefObj<IControlSshPlugin> plugin(new CSSHClientRaw);
    plugin->SetListener(listener.get());
    const auto call = [&](char what) {
      listener->throws = what == 'F' || what == 'X';
      if (what == 'E' || what == 'X') return plugin->ExitInstance();
      if (what == 'R' || what == 'F') return plugin->Run();
      if (stream) stream->End();
      stream = what == 'N' ? nullptr : new PluginStream;
      if (what == 'T') stream->Behave({.close_throws = true});
      return plugin->InitInstance(stream.get());
    };
    std::vector<std::uint32_t> results;
    std::transform(order.calls.begin(), order.calls.end(), std::back_inserter(results), call);
    EXPECT_EQ(results, order.results);
    EXPECT_EQ(AnyPortListens(), order.listens);
    call('E');
    EXPECT_FALSE(AnyPortListens());
  }
}

}  // namespace
}  // namespace gxtest
