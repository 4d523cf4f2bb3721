#include "sock/sock_acceptor.h"

#include "sock/keeping_tracker.h"
#include "support/descriptor_limit.h"
#include "support/leak_gate.h"
#include "support/log_capture.h"
#include "support/refused_call.h"
#include "support/tcp_client.h"
#include "support/test.h"

namespace {

using gxtest::TcpClient;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;

// Keeps every stream, in the order in which they came.
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

// How many descriptors a program that is started now would have.
int DescriptorsForPrograms() {
  int count = 0;
  for (int descriptor = 0; descriptor < 100; ++descriptor) count += fcntl(descriptor, F_GETFD) == 0 ? 1 : 0;
  return count;
}

class SockAcceptorTest : public gxtest::LeakGate {};

TEST_F(SockAcceptorTest, AcceptsAllWhoWaitInOrder) {
  KeepingAcceptor acceptor;
  KeepingTracker tracker;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
  EXPECT_EQ(tracker.tasks.size(), 1U);
  const TcpClient clients[] = {TcpClient(acceptor.GetAddress()), TcpClient(acceptor.GetAddress())};
  EXPECT_TRUE(acceptor.Accept());
  ASSERT_EQ(acceptor.streams.size(), 2U);
  for (std::size_t i = 0; i < 2; ++i) {
    sockaddr_in name;
    socklen_t length = sizeof name;
    getsockname(clients[i].socket_handle(), reinterpret_cast<sockaddr*>(&name), &length);
    EXPECT_EQ(acceptor.streams[i]->GetPeerName(), "127.0.0.1:" + std::to_string(ntohs(name.sin_port)));
  }
  EXPECT_EQ(tracker.tasks.size(), 2U);
}

// fuzz_address has the spellings of addresses. That of an IPv6 port is told as 0.0.0.0.
TEST_F(SockAcceptorTest, ListenTexts) {
  for (const auto& [text, address] :
       {std::pair("[::1]:0", "0.0.0.0:"), {"localhost:0", ""}, {"127.0.0.1", ""}}) {
    KeepingAcceptor acceptor;
    KeepingTracker tracker;
    EXPECT_EQ(acceptor.StartListen(text, &tracker), *address != '\0') << text;
    EXPECT_THAT(acceptor.GetAddress(), testing::StartsWith(address)) << text;
  }
  EXPECT_FALSE(KeepingAcceptor().StartListen(nullptr, nullptr));
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
  EXPECT_EQ(acceptor.streams.size(), 0U);
  tracker.tasks[1]->Done();
  EXPECT_EQ(acceptor.streams.size(), 1U);
}

// The host may be in a sandbox: success means that somebody accepts.
TEST_F(SockAcceptorTest, WhereTheSystemRefusesNothingListens) {
  KeepingAcceptor acceptor;
  KeepingTracker tracker;
  testing::internal::CaptureStdout();
  for (const long refused : {SYS_accept4, SYS_listen}) {
    ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
    const std::string before = acceptor.GetAddress();
    ASSERT_TRUE(acceptor.Stop());
    const int open = gxtest::OpenDescriptors();
    gxtest::WithRefusedCall(refused, EPERM, [&] {
      EXPECT_FALSE(acceptor.StartListen(before.c_str(), &tracker));  // the same port
    });
    EXPECT_STREQ(acceptor.GetAddress(), "");
    EXPECT_FALSE(acceptor.IsRunning());
    EXPECT_EQ(gxtest::OpenDescriptors(), open);
    EXPECT_FALSE(TcpClient(before).IsConnected());
  }
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::StartsWith("accept failed with 1\n"));
}

// One bad connection must not close the port to all others.
TEST_F(SockAcceptorTest, AcceptsAgainAfterTheErrorOfOneConnection) {
  KeepingAcceptor acceptor;
  KeepingTracker tracker;
  LogCapture log;
  ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
  const TcpClient client(acceptor.GetAddress());
  testing::internal::CaptureStdout();
  for (const int error : {EPROTO, ENETDOWN, EHOSTUNREACH, ECONNABORTED, EOPNOTSUPP, EPERM}) {
    gxtest::WithRefusedCall(SYS_accept4, error, [&] { EXPECT_FALSE(acceptor.Accept()); });
    EXPECT_TRUE(acceptor.IsRunning());
    EXPECT_THAT(log.Lines(),
                ElementsAre(Pair(kGXModLogError, HasSubstr("): " + std::to_string(error) + ",at line 438"))));
    EXPECT_EQ(tracker.tasks.back().socket(), -1) << "it waits for nothing but the end of its time";
    EXPECT_LE(tracker.tasks.back()->timeleft(), 5000U);
    EXPECT_GT(tracker.tasks.back()->timeleft(), 0U);
  }
  EXPECT_EQ(tracker.tasks.size(), 7U);
  tracker.tasks.back()->Done();
  EXPECT_EQ(acceptor.streams.size(), 1U);

  // Without descriptors it pauses as long, and nobody calls that a failure.
  gxtest::WithRefusedCall(SYS_accept4, EMFILE, [&] { EXPECT_TRUE(acceptor.Accept()); });
  EXPECT_EQ(tracker.tasks.back().socket(), -1);
  EXPECT_GT(tracker.tasks.back()->timeleft(), 0U);

  // It is the port itself that has failed.
  gxtest::WithRefusedCall(SYS_accept4, EINVAL, [&] { EXPECT_FALSE(acceptor.Accept()); });
  EXPECT_FALSE(TcpClient(acceptor.GetAddress()).IsConnected());
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::StartsWith("accept failed with 71\naccept failed with 100\n"));
}

// A program that the host starts in between would keep the port open.
TEST_F(SockAcceptorTest, DescriptorsAreCloseOnExecFromTheirFirstMoment) {
  KeepingAcceptor acceptor;
  KeepingTracker tracker;
  const int before = DescriptorsForPrograms();
  gxtest::WithRefusedCall(SYS_fcntl, EPERM, [&] {
    ASSERT_TRUE(acceptor.StartListen("127.0.0.1:0", &tracker));
    const TcpClient client(acceptor.GetAddress());
    ASSERT_TRUE(acceptor.Accept());
  });
  ASSERT_EQ(acceptor.streams.size(), 1U);
  EXPECT_EQ(DescriptorsForPrograms(), before);
}

}  // namespace
