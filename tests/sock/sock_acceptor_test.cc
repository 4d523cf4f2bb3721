#include "sock/sock_acceptor.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "reactor/reactor.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/tcp_client.h"
#include "support/wait.h"

namespace {

using gxtest::Eventually;
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

 private:
  std::mutex mutex_;
  std::vector<CRefObj<CSockStream>> streams_;
};

// Counts what it is given and does nothing with it.
class CountingTracker final : public ITCPTaskTracker {
 public:
  bool AddTask(const CTCPTask&) override {
    ++tasks;
    return true;
  }
  int tasks = 0;
};

class SockAcceptorTest : public gxtest::LeakGate {};

TEST_F(SockAcceptorTest, AcceptsAllWhoWaitInOrder) {
  CountingTracker tracker;
  KeepingAcceptor acceptor;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
  EXPECT_EQ(tracker.tasks, 1);
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
  EXPECT_EQ(tracker.tasks, 2);
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
  CountingTracker tracker;
  for (const auto& c : cases) {
    KeepingAcceptor acceptor;
    const std::string name = c.text != nullptr ? c.text : "null";
    EXPECT_EQ(acceptor.StartListen(c.text, &tracker), c.listens) << name;
    EXPECT_THAT(acceptor.GetAddress(), testing::StartsWith(c.address)) << name;
    EXPECT_EQ(acceptor.IsRunning(), c.listens) << name;
  }
}

// Stop closes the port; a new start gets a new one, and a task from before does not accept for it.
TEST_F(SockAcceptorTest, RestartsAfterStop) {
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  KeepingAcceptor acceptor;
  std::string address;
  for (int round = 0; round < 50; ++round) {
    ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &reactor));
    address = acceptor.GetAddress();
    ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &reactor)) << "already running";
    EXPECT_EQ(acceptor.GetAddress(), address);
    ASSERT_TRUE(acceptor.Stop());
    EXPECT_FALSE(TcpClient(address).IsConnected());
  }
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &reactor));
  const TcpClient client(acceptor.GetAddress());
  EXPECT_TRUE(Eventually([&] { return acceptor.Peers().size() == 1; }));
  reactor.Stop();
}

int LowestFreeDescriptor() {
  const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(descriptor);
  return descriptor;
}

// Only descriptors below `limit` can be opened while it lives.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit wanted{static_cast<rlim_t>(limit), before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &wanted), 0);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_;
};

TEST_F(SockAcceptorTest, RunningOutOfDescriptorsKeepsTheListener) {
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  KeepingAcceptor acceptor;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &reactor));
  TcpClient waiting(acceptor.GetAddress());
  ASSERT_TRUE(Eventually([&] { return acceptor.Peers().size() == 1; }));
  // The next client takes the last descriptor, so the acceptor finds none for its own end.
  testing::internal::CaptureStdout();
  std::optional<TcpClient> unlucky;
  {
    const DescriptorLimit one_left(LowestFreeDescriptor() + 1);
    unlucky.emplace(acceptor.GetAddress());
    EXPECT_TRUE(unlucky->IsConnected());
    EXPECT_FALSE(Eventually([&] { return acceptor.Peers().size() == 2; }, std::chrono::milliseconds(200)));
  }
  EXPECT_TRUE(Eventually([&] { return acceptor.Peers().size() == 2; }));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "accept failed with WSAEMFILE\n");
  EXPECT_TRUE(TcpClient(acceptor.GetAddress()).IsConnected());
  reactor.Stop();
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

// A descriptor that select cannot watch would never be served: better refused than left hanging.
TEST_F(SockAcceptorTest, DescriptorsBeyondSelectAreRefused) {
  const DescriptorLimit plenty(FD_SETSIZE + 100);
  LogCapture log;
  CReactor_T<tcp_select_tracker> reactor;
  ASSERT_TRUE(reactor.Run(1));
  KeepingAcceptor acceptor;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &reactor));
  const TcpClient first(acceptor.GetAddress());
  ASSERT_TRUE(Eventually([&] { return acceptor.Peers().size() == 1; }));  // the reactor has its wake-up socket
  std::vector<int> fillers;
  do fillers.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  while (fillers.back() < FD_SETSIZE);

  TcpClient refused(acceptor.GetAddress());
  EXPECT_TRUE(refused.WaitForEnd());
  EXPECT_EQ(acceptor.Peers().size(), 1U);
  KeepingAcceptor late;
  EXPECT_FALSE(late.StartListen("127.0.0.1:0", &reactor));
  EXPECT_THAT(log.Lines(),
              testing::IsSupersetOf({testing::Pair(kGXModLogError, testing::HasSubstr("refused")),
                                     testing::Pair(kGXModLogError, testing::HasSubstr("listening"))}));
  for (const int filler : fillers) close(filler);
  const TcpClient served(acceptor.GetAddress());
  EXPECT_TRUE(Eventually([&] { return acceptor.Peers().size() == 2; }));
  reactor.Stop();
}

}  // namespace
