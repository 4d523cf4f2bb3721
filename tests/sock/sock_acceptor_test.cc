#include "sock/sock_acceptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/descriptor_limit.h"
#include "support/leak_gate.h"
#include "support/tcp_client.h"
#include "support/wait.h"

namespace {

using gxtest::DescriptorLimit;
using gxtest::Eventually;
using gxtest::LowestFreeDescriptor;
using gxtest::TcpClient;

// Keeps every stream, in the order in which they came.
class KeepingAcceptor final : public CSockAcceptor {
 public:
  ~KeepingAcceptor() override {
    for (const auto& stream : streams_) stream->Disconnect(0);
  }
  bool OnAccept(CRefObj<CSockStream> stream) override {
    const std::lock_guard lock(mutex_);
    streams_.push_back(std::move(stream));
    return true;
  }
  std::vector<std::string> Peers() {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& stream : streams_) names.emplace_back(stream->GetPeerName());
    return names;
  }
  std::size_t Count() { return Peers().size(); }

 private:
  std::mutex mutex_;
  std::vector<CRefObj<CSockStream>> streams_;
};

// Keeps what it is given and does nothing with it.
class KeepingTracker final : public ITCPTaskTracker {
 public:
  bool AddTask(const CTCPTask& task) override {
    tasks.push_back(task);
    return true;
  }
  std::vector<CTCPTask> tasks;
};

class SockAcceptorTest : public gxtest::LeakGate {};

TEST_F(SockAcceptorTest, AcceptsAllWhoWaitInOrder) {
  KeepingAcceptor acceptor;
  KeepingTracker tracker;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
  EXPECT_EQ(tracker.tasks.size(), 1U);
  const TcpClient first(acceptor.GetAddress());
  const TcpClient second(acceptor.GetAddress());
  const TcpClient third(acceptor.GetAddress());
  EXPECT_TRUE(acceptor.Accept());
  std::vector<std::string> expected;
  for (const TcpClient* client : {&first, &second, &third}) {
    sockaddr_in name;
    socklen_t length = sizeof name;
    getsockname(client->socket_handle(), reinterpret_cast<sockaddr*>(&name), &length);
    expected.push_back("127.0.0.1:" + std::to_string(ntohs(name.sin_port)));
  }
  EXPECT_EQ(acceptor.Peers(), expected);
  EXPECT_EQ(tracker.tasks.size(), 2U);
}

TEST_F(SockAcceptorTest, ListenTexts) {
  const struct {
    const char* text;
    bool listens;
    const char* address;  // up to the port
  } cases[] = {
      {"127.0.0.1:0", true, "127.0.0.1:"},
      {"0.0.0.0:0", true, "0.0.0.0:"},
      {"[::1]", true, "0.0.0.0:"},
      {"[::1]:0", true, "0.0.0.0:"},
      {"localhost", false, ""},
      {"localhost:0", false, ""},
      {"", false, ""},
      {"[::1", false, ""},
      {nullptr, false, ""},
  };
  for (const auto& c : cases) {
    KeepingAcceptor acceptor;
    KeepingTracker tracker;
    const std::string name = c.text != nullptr ? c.text : "null";
    EXPECT_EQ(acceptor.StartListen(c.text, &tracker), c.listens) << name;
    EXPECT_THAT(acceptor.GetAddress(), testing::StartsWith(c.address)) << name;
    EXPECT_EQ(acceptor.IsRunning(), c.listens) << name;
  }
}

// Stop closes the port; a new start gets a new one, and a task from before does not accept for it.
TEST_F(SockAcceptorTest, RestartsAfterStop) {
  KeepingAcceptor acceptor;
  KeepingTracker tracker;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
  const std::string address = acceptor.GetAddress();
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker)) << "already running";
  EXPECT_EQ(acceptor.GetAddress(), address);
  ASSERT_TRUE(acceptor.Stop());
  EXPECT_FALSE(TcpClient(address).IsConnected());
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
  const TcpClient client(acceptor.GetAddress());
  ASSERT_EQ(tracker.tasks.size(), 2U);
  tracker.tasks[0]->Done();
  EXPECT_EQ(acceptor.Count(), 0U);
  tracker.tasks[1]->Done();
  EXPECT_EQ(acceptor.Count(), 1U);
}

// The pause for descriptors must not hold a stop up.
TEST_F(SockAcceptorTest, StopEndsThePause) {
  KeepingAcceptor acceptor;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", nullptr));
  testing::internal::CaptureStdout();
  std::atomic<bool> started{false};
  std::atomic<bool> go{false};
  std::atomic<bool> done{false};
  std::thread paused([&] {
    started = true;
    Eventually([&] { return go.load(); });
    EXPECT_TRUE(acceptor.Accept());
    done = true;
  });
  ASSERT_TRUE(Eventually([&] { return started.load(); }));
  const auto before = std::chrono::steady_clock::now();
  {
    const DescriptorLimit none(LowestFreeDescriptor());
    go = true;
    EXPECT_FALSE(Eventually([&] { return done.load(); }, std::chrono::milliseconds(100)));
    acceptor.Stop();
    EXPECT_TRUE(Eventually([&] { return done.load(); }));
  }
  paused.join();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(4));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "accept failed with WSAEMFILE\n");
}

// Nobody would watch the port: clients must be refused instead of left waiting.
TEST_F(SockAcceptorTest, WithoutMemoryForATaskThePortIsClosed) {
  class FullTracker final : public ITCPTaskTracker {
   public:
    bool AddTask(const CTCPTask&) override { throw std::bad_alloc(); }
  };
  FullTracker tracker;
  KeepingAcceptor acceptor;
  EXPECT_FALSE(acceptor.StartListen("127.0.0.1:0", &tracker));
  EXPECT_FALSE(TcpClient(acceptor.GetAddress()).IsConnected());
}

}  // namespace
