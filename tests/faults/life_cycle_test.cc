// The life of a plugin in a host's hands: ends at bad moments, calls in any order.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <iostream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "module/ssh_client.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/scale.h"

namespace {

using namespace std::chrono_literals;
using gxtest::ConnectionType;
using gxtest::Eventually;
using gxtest::FarSide;
using gxtest::Frame;
using gxtest::Pattern;
using gxtest::PluginStream;
using gxtest::Rounds;
using gxtest::Scale;
using gxtest::TcpClient;

class LifeCycle : public gxtest::ForwardingTest {};

// Clients that send without end, take what comes or nothing at all, and come and go; a far side that floods,
// opens ports, and stops reading or sending. At a random moment of all that the client is stopped.
TEST_F(LifeCycle, ExitAtAnyMomentIsShortAndLeavesNothing) {
  const long bound_ms = gxtest::IsLong() ? 1'000 : 10'000;
  const std::string block = Pattern(30'000);
  std::minstd_rand engine(1);
  const auto random = [&engine] { return static_cast<unsigned>(engine()); };
  long longest_ms = 0;
  const int rounds = Rounds(25, 500);
  for (int round = 0; round < rounds; ++round) {
    Start({.high_mark_bytes = random() % 2 == 0 ? 100'000U : 64U << 20});
    PluginStream::Behaviour behaviour;
    if (random() % 2 == 0) behaviour.capacity = 1 + random() % 50'000;
    if (random() % 2 == 0) behaviour.send_capacity = 1 + random() % 200'000;
    if (random() % 4 == 0) behaviour.cut_seed = 1;
    const unsigned stall = random() % 4;  // 1: the road in stops; 2: the road out does
    const unsigned delay_us = random() % 20'000;
    std::atomic<bool> stop{false};
    std::atomic<bool> hold{false};

    // Answers with more than the clients read, until it takes no more frames.
    FarSide far(stream_, [&](PluginStream& stream, const Frame& frame) {
      Eventually([&] { return !hold || stream.IsClosed(); });
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
    std::this_thread::sleep_for(std::chrono::microseconds(delay_us));
    if (stall == 1) behaviour.read_at_most = 0;
    hold = stall == 2;
    stream_->Behave(behaviour);
    if (stall != 0) std::this_thread::sleep_for(2ms);  // for the queues to fill

    const long took_ms = gxtest::Measure([&] { client_->ExitInstance(); });
    longest_ms = std::max(longest_ms, took_ms);
    EXPECT_LE(took_ms, bound_ms) << "round " << round;
    EXPECT_FALSE(TcpClient(address_).IsConnected());
    stop = true;
    locals.join();
    far.Stop();
    for (TcpClient& client : clients) EXPECT_TRUE(client.WaitForEnd()) << "round " << round;
    if (HasFailure()) break;
  }
  std::cout << rounds << " exits, the longest " << longest_ms << " ms\n";
}

// A client that knocks at a closed port of the range from which its own is chosen may meet itself.
bool IsConnectedToItself(const TcpClient& client) {
  sockaddr_in own{};
  sockaddr_in peer{};
  socklen_t length = sizeof own;
  getsockname(client.socket_handle(), reinterpret_cast<sockaddr*>(&own), &length);
  getpeername(client.socket_handle(), reinterpret_cast<sockaddr*>(&peer), &length);
  return own.sin_port == peer.sin_port;
}

// Whoever got in before a stop is put out by it.
TEST_F(LifeCycle, NoConnectionSurvivesAStop) {
  std::atomic<bool> done{false};
  std::atomic<int> port{0};
  std::mutex mutex;
  std::vector<TcpClient> guests;
  std::atomic<int> knocks{0};
  std::thread knocking([&] {
    while (!done) {
      TcpClient guest(port);
      ++knocks;
      if (!guest.IsConnected() || IsConnectedToItself(guest)) continue;
      // Fewer than the backlog: one that is full lets a client wait for a second.
      Eventually([&] {
        const std::lock_guard lock(mutex);
        if (guests.size() >= 50) return done.load();
        guests.push_back(std::move(guest));
        return true;
      });
    }
  });
  std::size_t put_out = 0;
  const int stops = Rounds(100, 2'000);
  for (int round = 0; round < stops && !HasFailure(); ++round) {
    Start({});
    const int knocks_before = knocks;
    port = std::stoi(address_.substr(address_.rfind(':') + 1));
    if (round % 2 == 0) Eventually([&] { return knocks > knocks_before + 3; });
    client_->ExitInstance();
    port = 0;  // which soon may be somebody else's
    std::vector<TcpClient> all;
    {
      const std::lock_guard lock(mutex);
      all.swap(guests);
    }
    put_out += all.size();
    for (TcpClient& guest : all) {
      guest.Send(
          "x");  // a handshake that was cut short has left some of them at nobody's end; they learn it so
      EXPECT_TRUE(guest.WaitForEnd()) << "round " << round;
    }
  }
  done = true;
  knocking.join();
  std::cout << stops << " stops, " << put_out << " of " << knocks << " connections put out\n";
}

class Listener final : public IControlSshListener, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  void OnLocalAddress(const char*, std::uint16_t) override {}
  void OnExit() override {}
  const char* GetRemoteAddress() override { return "h:1"; }
};

// A host that calls whatever comes to its mind. It keeps to one rule: before it lets a plugin go that runs, or
// gives it another stream, it ends the stream that the plugin reads.
class AnyHost {
 public:
  explicit AnyHost(unsigned seed) : random_(seed) {}
  ~AnyHost() { EndStreams(); }

  void Call() {
    switch (random_() % 12) {
      case 0:
      case 1:
        Init(CRefObj<PluginStream>(new PluginStream));
        break;
      case 2:
        Init(nullptr);
        break;
      case 3:
        if (stream_) Init(stream_);
        break;
      case 4:
      case 5:
      case 6:
        Run();
        break;
      case 7:
      case 8:
        EXPECT_EQ(plugin_->ExitInstance(), kGXModOk);
        if (state_ != kNew) state_ = kExited;
        if (std::exchange(running_, false)) {
          EXPECT_FALSE(TcpClient(plugin_->GetLocalPort()).IsConnected());
        }
        break;
      case 9:
        plugin_->SetListener(random_() % 2 == 0 ? CRefObj<Listener>(new Listener).get() : nullptr);
        break;
      case 10:
        AskAround();
        break;
      default:
        Connect();
    }
  }

 private:
  enum State { kNew, kInitialised, kExited };

  void Init(const CRefObj<PluginStream>& stream) {
    EndStreams();
    EXPECT_EQ(plugin_->InitInstance(stream.get()), kGXModOk);
    EXPECT_EQ(plugin_->GetPluginStream().get(), stream.get());
    stream_ = stream;
    state_ = kInitialised;
    running_ = false;
  }

  void Run() {
    const std::uint32_t expected[] = {kGXModNothingDone, kGXModOk, kGXModFail};
    EXPECT_EQ(plugin_->Run(), expected[state_]);
    if (state_ == kInitialised) running_ = true;
  }

  void AskAround() {
    void* found = nullptr;
    EXPECT_FALSE(plugin_->GetInterface("icontrolsshplugin", &found));
    EXPECT_FALSE(plugin_->GetInterface(nullptr, &found));
    EXPECT_FALSE(plugin_->GetInterface(kControlSshInterfaceName, nullptr));
    EXPECT_TRUE(plugin_->GetInterface(kControlSshInterfaceName, &found));
    const auto same = CRefObj<IControlSshPlugin>::Attach(static_cast<IControlSshPlugin*>(found));
    EXPECT_EQ(same, plugin_);
    EXPECT_STREQ(plugin_->GetLocalAddress(), "127.0.0.1");
    EXPECT_EQ(plugin_->Load(nullptr), kGXModOk);
    EXPECT_EQ(plugin_->SetPermission(nullptr, 0), kGXModOk);
    plugin_->Empty();
    EXPECT_EQ(plugin_->SetProperty(nullptr, nullptr), 0);
    EXPECT_EQ(plugin_->GetProperty(nullptr), nullptr);
  }

  // A plugin that runs answers: with a frame, or, without a stream that lives, by hanging up.
  void Connect() {
    if (!running_) return;
    if (stream_) stream_->Send({ConnectionType::ChannelList, 0, "name=a&addr=h%3A1;"});
    TcpClient client(plugin_->GetLocalPort());
    EXPECT_TRUE(client.IsConnected());
    if (!stream_) {
      EXPECT_TRUE(client.WaitForEnd());
    } else if (!stream_->IsClosed()) {
      EXPECT_TRUE(stream_->Receive(ConnectionType::Connect));
    }
  }

  void EndStreams() {
    if (stream_) stream_->End();
  }

  std::minstd_rand random_;
  CRefObj<IControlSshPlugin> plugin_{new CSSHClientRaw};
  CRefObj<PluginStream> stream_;
  State state_ = kNew;
  bool running_ = false;
};

class CallOrders : public gxtest::LeakGate {
 private:
  LogCapture log_;
};

TEST_F(CallOrders, EveryOrderHasItsResults) {
  const int orders = Rounds(100, 2'000);
  for (int order = 0; order < orders && !HasFailure(); ++order) {
    SCOPED_TRACE("order " + std::to_string(order));
    AnyHost host(static_cast<unsigned>(order + 1));
    for (int call = 0; call < 15; ++call) host.Call();
  }
}

}  // namespace
