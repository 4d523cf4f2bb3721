// More files than select can watch.

#include "support/descriptor_limit.h"
#include "support/far_side.h"
#include "support/forwarding.h"
#include "support/test.h"

namespace gxtest {
namespace {

class ReactorFaults : public ForwardingTest {};

// A host with 1,100 open files: what select cannot watch is refused with a line, what it can is served.
TEST_F(ReactorFaults, AHostOfManyFilesIsRefusedWithALine) {
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
    const auto lines = log_.Lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) {
                              return line.first == kGXModLogError &&
                                     line.second.find("connection refused") != std::string::npos;
                            }),
              20);
    IChannelRaw* deaf = client_->NewChannel("late", "", "10.0.0.1:22");
    ASSERT_NE(deaf, nullptr);
    EXPECT_STREQ(deaf->get_LocalAddress(), "") << "no port that nobody answers on";
    EXPECT_THAT(log_.Lines(),
                testing::Contains(testing::Pair(kGXModLogError, testing::HasSubstr("listening"))));
  }
  EXPECT_TRUE(before.Echoes());
  TcpClient after(address_);
  EXPECT_TRUE(after.Echoes());
}

}  // namespace
}  // namespace gxtest
