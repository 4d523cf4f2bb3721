// A plugin stream that fails, or that promises more than it sends.

#include "support/far_listener.h"
#include "support/forwarding.h"
#include "support/heap.h"
#include "support/scale.h"
#include "support/test.h"

namespace gxtest {
namespace {

class CarrierTest : public ForwardingTest {};

// Wherever the stream fails, both threads of the client end when they are asked to.
TEST_F(CarrierTest, ReadOrWriteFailsAtAnyByte) {
  const std::size_t step = Scale<std::size_t>(5, 1);
  for (std::size_t fail_at = 0; fail_at <= 70 && !HasFailure(); fail_at += step) {
    Start({});
    const Connection connection = Connect();
    stream_->Behave({.fail_read_at = fail_at});
    stream_->Send(Encode({ConnectionType::Data, connection.id, "one"}) + Encode(Answer(0, "heard")) +
                  Encode({ConnectionType::Close, connection.id, ""}) + "the beginning of another frame");
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

// The header of a frame says 4 GiB: memory is taken for the bytes that have come, not for those announced.
TEST_F(CarrierTest, PromiseOfFourGigabytesCostsWhatComes) {
  if (kSanitized) GTEST_SKIP() << "the shadow of 4 GiB costs as well";
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
}  // namespace gxtest
