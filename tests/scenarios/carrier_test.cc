// What the plugin stream may do to the module: cut, fail, lie, and ask for too much.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <random>
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
using gxtest::Measure;
using gxtest::Pattern;
using gxtest::PatternFault;
using gxtest::Rounds;
using gxtest::TcpClient;
using testing::ElementsAreArray;

constexpr long kStopMs = 1000;

class CarrierTest : public gxtest::ForwardingTest {
 protected:
  // The client, too, is new, and its listener is listener_.
  void Restart() {
    Start({});
    client_->SetListener(listener_.get());
  }

  // Both threads of the client are gone in time, wherever they were.
  void StopsInTime() {
    EXPECT_LT(Measure([&] {
                client_->ExitInstance();
                EXPECT_TRUE(Eventually([&] { return gxtest::Threads() <= threads_; }));
              }),
              kStopMs);
  }

  const int threads_ = gxtest::Threads();
  const CRefObj<FarListener> listener_{new FarListener};
};

// A far side's script with everything in it that a far side may send, and what has to come of it.
struct Script {
  std::string wire;
  std::string data[2];  // for the two connections
  std::vector<std::string> heard;
};

Script MakeScript(std::size_t frames, std::size_t longest, const std::uint32_t (&ids)[2]) {
  std::minstd_rand random(7);
  Script script;
  for (std::size_t i = 0; i + 2 < frames; ++i) {
    const std::size_t which = random() % 2;
    const std::size_t length = i % 4 == 0 ? random() % 3 : random() % longest;
    switch (random() % 6) {
      case 0:
        script.wire +=
            Encode({ConnectionType{static_cast<std::uint8_t>(7 + i % 200)}, ids[which], Pattern(length)});
        break;
      case 1:
        script.wire += Encode({ConnectionType::Data, ids[which] + 1000, Pattern(length)});
        break;
      case 2:
        script.heard.push_back("works " + std::to_string(i));
        script.wire += Encode(Answer(0, std::to_string(i)));
        break;
      default: {
        const std::string part = Pattern(length, ids[which], script.data[which].size());
        script.data[which] += part;
        script.wire += Encode({ConnectionType::Data, ids[which], part});
        break;
      }
    }
  }
  for (const std::uint32_t id : ids) {
    script.wire += Encode({ConnectionType::Close, id, ""}) + Encode({ConnectionType::Data, id, "too late"});
  }
  return script;
}

TEST_F(CarrierTest, ScriptGivesTheSameHoweverItIsCut) {
  Restart();
  const int rounds = Rounds(300, 10'000);
  for (int round = 1; round <= rounds && !HasFailure(); ++round) {
    stream_->Behave({.read_at_most = round % 3 == 0 ? 40U : 4000U,
                     .cut_seed = static_cast<unsigned>(round),
                     .zero_every = round % 2 == 0 ? 5U : 0U});
    Connection first = Connect();
    Connection second = Connect();
    const std::uint32_t ids[] = {first.id, second.id};
    const Script script = MakeScript(200, 200, ids);
    stream_->Send(script.wire);
    for (Connection* connection : {&first, &second}) {
      const std::string& sent = script.data[connection == &second ? 1 : 0];
      const auto received = connection->local.ReceiveToEnd();
      ASSERT_TRUE(received) << round;
      EXPECT_EQ(received->size(), sent.size()) << round;
      EXPECT_EQ(PatternFault(*received, connection->id), "") << round;
      EXPECT_TRUE(stream_->Receive(ConnectionType::Close)) << round;
    }
    EXPECT_THAT(listener_->WaitFor(script.heard.size()), ElementsAreArray(script.heard)) << round;
    log_.Lines();
  }
}

TEST_F(CarrierTest, ReadFailsAtAnyByte) {
  const std::size_t length = MakeScript(50, 40, {1, 2}).wire.size();
  for (std::size_t fail_at = 0; fail_at <= length && !HasFailure();
       fail_at += gxtest::Scale<std::size_t>(13, 1)) {
    Restart();
    const Connection first = Connect();
    const Connection second = Connect();
    stream_->Behave({.fail_read_at = fail_at});
    stream_->Send(MakeScript(50, 40, {first.id, second.id}).wire);
    ASSERT_TRUE(stream_->WaitUntilReadEnds()) << fail_at;
    StopsInTime();
  }
}

TEST_F(CarrierTest, WriteFailsAtAnyByte) {
  constexpr std::size_t kLength = 47 * (16 + 17) + (16 + 11) + (16 + 9) + 16;
  for (std::size_t fail_at = 0; fail_at <= kLength && !HasFailure();
       fail_at += gxtest::Scale<std::size_t>(13, 1)) {
    Restart();
    const std::size_t limit = stream_->WrittenCount() + fail_at;
    stream_->Behave({.fail_write_at = limit});
    TcpClient local(address_);
    local.Send("some data");
    for (int i = 0; i < 47; ++i) client_->TestChannel("", "", "a channel to test");
    local.Close();
    EXPECT_TRUE(Eventually([&] { return stream_->WrittenCount() == limit; })) << fail_at;
    StopsInTime();
    EXPECT_FALSE(stream_->Overlapped());
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
  stream_->Send(header);
  ASSERT_TRUE(stream_->WaitUntilRead());
  connection.local.Send("works");
  EXPECT_EQ(ReceiveData(connection.id, 5), "works");
  EXPECT_LE(ResidentBytes(), before + kMebibyte);
  stream_->Send(std::string(kMebibyte, 'x'));
  ASSERT_TRUE(stream_->WaitUntilRead());
  EXPECT_LE(ResidentBytes(), before + 6 * kMebibyte) << "what has come is also in the hands of the test";
  StopsInTime();
}

}  // namespace
