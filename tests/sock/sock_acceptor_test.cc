#include "sock/sock_acceptor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "reactor/reactor.h"
#include "support/descriptor_limit.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/tcp_client.h"
#include "support/wait.h"

namespace {

using gxtest::DescriptorLimit;
using gxtest::Eventually;
using gxtest::LowestFreeDescriptor;
using gxtest::TakenDescriptors;
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
  EXPECT_TRUE(Eventually([&] { return acceptor.Count() == 1; }));
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

// A descriptor that select cannot watch would never be served: better refused than left hanging. That takes a
// reactor that is at work, also where its own wake-up socket would lie beyond select.
TEST_F(SockAcceptorTest, DescriptorsBeyondSelectAreRefused) {
  const DescriptorLimit plenty(FD_SETSIZE + 100);
  for (const bool with_wake_up_socket : {true, false}) {
    LogCapture log;
    CReactor_T<tcp_select_tracker> reactor;
    ASSERT_TRUE(reactor.Run(1));
    KeepingAcceptor acceptor;
    {
      const TakenDescriptors taken(FD_SETSIZE, with_wake_up_socket ? 2 : 1);
      ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &reactor));
      Eventually([&] { return LowestFreeDescriptor() >= FD_SETSIZE; });
      TcpClient refused(acceptor.GetAddress());
      EXPECT_TRUE(refused.WaitForEnd());
      EXPECT_EQ(acceptor.Count(), 0U);
      KeepingAcceptor late;
      EXPECT_FALSE(late.StartListen("127.0.0.1:0", &reactor));
    }
    EXPECT_THAT(log.Lines(),
                testing::IsSupersetOf({testing::Pair(kGXModLogError, testing::HasSubstr("refused")),
                                       testing::Pair(kGXModLogError, testing::HasSubstr("listening"))}));
    const TcpClient served(acceptor.GetAddress());
    EXPECT_TRUE(Eventually([&] { return acceptor.Count() == 1; }));
    reactor.Stop();
  }
}

// Fails as often as it is told to, wherever memory is asked for.
class PoorAcceptor final : public CSockAcceptor, public ITCPTaskTracker {
 public:
  enum Place { kMake, kTell, kQueue };
  PoorAcceptor(Place place, int failures) : place_(place), failures_(failures) {}

  bool CreateStream(CRefObj<CSockStream>& out, IBaseStream::StreamType type) override {
    Fail(kMake);
    return CSockAcceptor::CreateStream(out, type);
  }
  using CSockAcceptor::CreateStream;
  bool OnAccept(CRefObj<CSockStream> stream) override {
    stream->Write("hello", 5, kNoTimeout);
    kept_ = stream;
    Fail(kTell);
    return true;
  }
  bool AddTask(const CTCPTask&) override {
    Fail(kQueue);
    return true;
  }
  CRefObj<CSockStream> kept_;

 private:
  void Fail(Place here) {
    if (place_ == here && failures_-- > 0) throw std::bad_alloc();
  }
  const Place place_;
  int failures_;
};

TEST_F(SockAcceptorTest, WithoutMemoryOneConnectionIsLostAndTheNextIsAccepted) {
  LogCapture log;
  for (const auto place : {PoorAcceptor::kMake, PoorAcceptor::kTell, PoorAcceptor::kQueue}) {
    PoorAcceptor acceptor(place, 1);
    ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &acceptor));
    if (place != PoorAcceptor::kQueue) {
      TcpClient unlucky(acceptor.GetAddress());
      EXPECT_TRUE(acceptor.Accept());
      EXPECT_TRUE(unlucky.WaitForEnd());
      EXPECT_THAT(log.Lines(), testing::Contains(testing::Pair(kGXModLogError, testing::HasSubstr("refused"))));
    }
    TcpClient next(acceptor.GetAddress());
    EXPECT_TRUE(acceptor.Accept());
    EXPECT_EQ(next.Receive(5), "hello");
    acceptor.kept_->Disconnect(0);
  }
  // Nobody would watch the port: clients must be refused instead of left waiting.
  PoorAcceptor hopeless(PoorAcceptor::kQueue, 1000);
  EXPECT_FALSE(hopeless.StartListen("127.0.0.1:0", &hopeless));
  EXPECT_FALSE(TcpClient(hopeless.GetAddress()).IsConnected());
}

}  // namespace
