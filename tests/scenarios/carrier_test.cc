// What the plugin stream may do to the module: cut, fail, lie, and ask for too much.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/far_listener.h"
#include "support/forwarding.h"
#include "support/heap.h"
#include "support/scale.h"

namespace {

using gxtest::Answer;
using gxtest::ConnectionType;
using gxtest::Encode;
using gxtest::Eventually;
using gxtest::FarListener;
using gxtest::Pattern;
using gxtest::Scale;
using gxtest::TcpClient;

class CarrierTest : public gxtest::ForwardingTest {
 protected:
  // Everything that a far side may send to two connections.
  static std::string Script(std::uint32_t first, std::uint32_t second) {
    return Encode({ConnectionType::Data, first, "one"}) + Encode({ConnectionType{77}, first, "strange"}) +
           Encode({ConnectionType::Data, second, Pattern(100)}) +
           Encode({ConnectionType::Data, first + 1000, "nobody's"}) + Encode(Answer(0, "heard")) +
           Encode({ConnectionType::Data, first, ""}) + Encode({ConnectionType::Data, first, " two"}) +
           Encode({ConnectionType::Close, first, ""}) + Encode({ConnectionType::Data, first, "too late"}) +
           Encode({ConnectionType::Data, second, Pattern(99, 1, 100)}) +
           Encode({ConnectionType::Close, second, ""});
  }
};

TEST_F(CarrierTest, ScriptGivesTheSameHoweverItIsCut) {
  const CRefObj<FarListener> listener(new FarListener);
  client_->SetListener(listener.get());
  const unsigned rounds = Scale(100U, 10'000U);
  for (unsigned round = 1; round <= rounds && !HasFailure(); ++round) {
    stream_->Behave(
        {.read_at_most = round % 3 == 0 ? 1U : 40U, .cut_seed = round, .zero_every = round % 2 == 0 ? 5U : 0U});
    Connection first = Connect();
    Connection second = Connect();
    stream_->Send(Script(first.id, second.id));
    EXPECT_EQ(first.local.ReceiveToEnd(), "one two") << round;
    EXPECT_EQ(second.local.ReceiveToEnd(), Pattern(199)) << round;
    EXPECT_THAT(listener->WaitFor(1), testing::ElementsAre("works heard")) << round;
    EXPECT_TRUE(stream_->Receive(ConnectionType::Close) && stream_->Receive(ConnectionType::Close)) << round;
  }
}

// Wherever the stream fails, both threads of the client end when they are asked to.
TEST_F(CarrierTest, ReadOrWriteFailsAtAnyByte) {
  const std::size_t step = Scale<std::size_t>(5, 1);
  const std::size_t length = Script(1, 2).size();
  for (std::size_t fail_at = 0; fail_at <= length && !HasFailure(); fail_at += step) {
    Start({});
    const Connection first = Connect();
    const Connection second = Connect();
    stream_->Behave({.fail_read_at = fail_at});
    stream_->Send(Script(first.id, second.id));
    ASSERT_TRUE(stream_->WaitUntilReadEnds()) << fail_at;

    Start({});
    const std::size_t limit = stream_->WrittenCount() + fail_at;
    stream_->Behave({.fail_write_at = limit});
    TcpClient local(address_);
    local.Send("some data");
    for (int i = 0; i < 20; ++i) client_->TestChannel("", "", "a channel to test");
    local.Close();
    EXPECT_TRUE(Eventually([&] { return stream_->WrittenCount() == limit; })) << fail_at;
  }
}

std::size_t ResidentBytes() {
  std::size_t total = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> total >> resident;
  return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// The far side may promise what no machine has; it costs what has come of it.
TEST_F(CarrierTest, PromiseOfFourGigabytesCostsWhatComes) {
  if (gxtest::kSanitized) GTEST_SKIP() << "the shadow of 4 GiB costs as well";
  constexpr std::size_t kMebibyte = 1024 * 1024;
  Connection connection = Connect();
  std::string header = Encode({ConnectionType::Data, connection.id, ""});
  std::memset(&header[4], 0xFF, 4);
  const std::size_t before = ResidentBytes();
  stream_->Send(header + std::string(kMebibyte, 'x'));
  ASSERT_TRUE(stream_->WaitUntilRead());
  connection.local.Send("works");
  EXPECT_EQ(ReceiveData(connection.id, 5), "works");
  EXPECT_LE(ResidentBytes(), before + 6 * kMebibyte) << "what has come is also in the hands of the test";
}

}  // namespace
