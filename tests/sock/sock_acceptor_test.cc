#include "sock/sock_acceptor.h"

#include <netinet/tcp.h>

#include "base/clock.h"
#include "sock/keeping_tracker.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/shortage.h"
#include "support/tcp_client.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

using gxtest::TcpClient;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// Keeps the streams of all connections in the order of acceptance.
class KeepingAcceptor final : public CSockAcceptor {
 public:
  ~KeepingAcceptor() override {
    for (const auto& stream : streams) stream->Disconnect(0);
  }
  bool OnAccept(CRefObj<CSockStream> stream) override {
    streams.push_back(std::move(stream));
    return true;
  }
  std::vector<CRefObj<CSockStream>> streams;
};

// The number of descriptors that a program started at this moment would inherit.
int DescriptorsForPrograms() {
  int count = 0;
  for (int descriptor = 0; descriptor < 100; ++descriptor) count += fcntl(descriptor, F_GETFD) == 0 ? 1 : 0;
  return count;
}

// The number of connections that can be accepted. connect returns before the last packet of its handshake has
// arrived.
unsigned Waiting(int listener) {
  tcp_info info{};
  socklen_t length = sizeof info;
  getsockopt(listener, IPPROTO_TCP, TCP_INFO, &info, &length);
  return info.tcpi_unacked;
}

class SockAcceptorTest : public gxtest::LeakGate {
 protected:
  void TearDown() override {
    tracker_.tasks.clear();
    acceptor_.reset();
    LeakGate::TearDown();
  }
  bool Listen() { return acceptor_->StartListen("127.0.0.1:0", &tracker_); }

  KeepingTracker tracker_;
  std::optional<KeepingAcceptor> acceptor_{std::in_place};
};

// All descriptors are close-on-exec from their creation on. With a second call for that, here a refused one, a
// program that the host starts in between would inherit the port.
TEST_F(SockAcceptorTest, AcceptsAllWhoWaitAndTheHostsProgramsInheritNothing) {
  const int before = DescriptorsForPrograms();
  std::vector<TcpClient> clients;
  gxtest::WithRefusedCall(SYS_fcntl, EPERM, [&] {
    ASSERT_TRUE(Listen());
    EXPECT_EQ(tracker_.tasks.size(), 1U);
    for (int i = 0; i < 2; ++i) clients.emplace_back(acceptor_->GetAddress());
    EXPECT_TRUE(gxtest::Eventually([&] { return Waiting(tracker_.tasks[0].socket()) == 2; }));
    EXPECT_TRUE(acceptor_->Accept());
  });
  EXPECT_EQ(DescriptorsForPrograms(), before);
  EXPECT_EQ(tracker_.tasks.size(), 2U);
  ASSERT_EQ(acceptor_->streams.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    sockaddr_in name;
    socklen_t length = sizeof name;
    getsockname(clients[i].socket_handle(), reinterpret_cast<sockaddr*>(&name), &length);
    EXPECT_EQ(acceptor_->streams[i]->GetPeerName(), "127.0.0.1:" + std::to_string(ntohs(name.sin_port)));
  }
}

// Stop closes the port, a new start opens another one. A task of the old port accepts nothing on the new one.
TEST_F(SockAcceptorTest, RestartsAfterStop) {
  ASSERT_TRUE(Listen());
  const std::string address = acceptor_->GetAddress();
  ASSERT_TRUE(Listen()) << "already running";
  EXPECT_EQ(acceptor_->GetAddress(), address);
  ASSERT_TRUE(acceptor_->Stop());
  EXPECT_FALSE(gxtest::AnyPortListens());
  ASSERT_EQ(tracker_.tasks.size(), 2U);
  EXPECT_TRUE(tracker_.tasks[1]->timeout()) << "makes the tracker look for the closed socket";
  ASSERT_TRUE(Listen());
  const TcpClient client(acceptor_->GetAddress());
  ASSERT_EQ(tracker_.tasks.size(), 3U);
  EXPECT_TRUE(gxtest::WaitFor(tracker_.tasks[2].socket(), POLLIN));
  for (std::size_t old = 0; old < 2; ++old) tracker_.tasks[old]->Done();
  EXPECT_EQ(acceptor_->streams.size(), 0U);
  tracker_.tasks[2]->Done();
  EXPECT_EQ(acceptor_->streams.size(), 1U);
  ASSERT_TRUE(acceptor_->Stop());
  if (FileText("/proc/net/if_inet6").empty()) GTEST_SKIP() << "no IPv6";
  ASSERT_TRUE(acceptor_->StartListen("[::1]:0", &tracker_));
  EXPECT_THAT(acceptor_->GetAddress(), testing::StartsWith("0.0.0.0:")) << "no IPv6 address is told";
}

// A sandbox may forbid accept or listen: then the start fails and no port stays open.
TEST_F(SockAcceptorTest, WhereTheSystemRefusesNothingListens) {
  testing::internal::CaptureStdout();
  for (const long refused : {SYS_accept4, SYS_listen}) {
    gxtest::WithRefusedCall(refused, EPERM, [&] { EXPECT_FALSE(Listen()); });
    EXPECT_STREQ(acceptor_->GetAddress(), "");
    EXPECT_FALSE(acceptor_->IsRunning());
    EXPECT_FALSE(gxtest::AnyPortListens());
  }
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::StartsWith("accept failed with 1\n"));
}

// One bad connection must not close the port to all others.
TEST_F(SockAcceptorTest, AcceptsAgainAfterTheErrorOfOneConnection) {
  LogCapture log;
  ASSERT_TRUE(Listen());
  const TcpClient client(acceptor_->GetAddress());
  EXPECT_TRUE(gxtest::WaitFor(tracker_.tasks[0].socket(), POLLIN));
  const std::uint64_t start_ms = gettickcount();
  const auto expect_pause = [&] {
    const CTCPTask& task = tracker_.tasks.back();
    EXPECT_EQ(task.socket(), -1) << "it waits for time only";
    const std::uint64_t left_ms = task->timeleft();
    EXPECT_TRUE(left_ms <= 5000 && left_ms + gettickcount() - start_ms >= 5000) << left_ms;
  };
  testing::internal::CaptureStdout();
  for (const int error : {EPROTO, ENETDOWN, EHOSTUNREACH, ECONNABORTED, EOPNOTSUPP, EPERM}) {
    gxtest::WithRefusedCall(SYS_accept4, error, [&] { EXPECT_FALSE(acceptor_->Accept()); });
    EXPECT_TRUE(acceptor_->IsRunning());
    EXPECT_THAT(log.Lines(),
                ElementsAre(Pair(kGXModLogError, HasSubstr("): " + std::to_string(error) + ",at line 438"))));
    expect_pause();
  }
  EXPECT_EQ(tracker_.tasks.size(), 7U);
  tracker_.tasks.back()->Done();
  EXPECT_EQ(acceptor_->streams.size(), 1U);

  // When descriptors run out it pauses as long, and Accept succeeds.
  gxtest::WithRefusedCall(SYS_accept4, EMFILE, [&] { EXPECT_TRUE(acceptor_->Accept()); });
  expect_pause();

  // EINVAL means that the port itself has failed.
  gxtest::WithRefusedCall(SYS_accept4, EINVAL, [&] { EXPECT_FALSE(acceptor_->Accept()); });
  EXPECT_FALSE(gxtest::AnyPortListens());
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::StartsWith("accept failed with 71\naccept failed with 100\n"));
}

}  // namespace
