#include "gx-ssh/output_queue.h"

#include "support/test.h"
#include "tools/kit.h"

namespace gxtool {
namespace {

// Reading begins after more was added than the queue keeps.
TEST(OutputQueueTest, StalledReaderCostsStatisticsFirst) {
  Pipe pipe = MakePipe();
  const std::string news(1023, 'N');
  const std::string statistics(1023, 'S');
  const std::size_t half = OutputQueue::kBytes / 2048;
  std::string got;
  {
    OutputQueue queue(pipe.write.get(), [](std::uint64_t) { return "lost\n"; });
    for (std::size_t i = 0; i < half; ++i) {
      queue.Add(news + "\n");
      for (int more = 0; more < 10; ++more) queue.Add(statistics + "\n", OutputQueue::Kind::kStatistics);
    }
    queue.Add("end\n");
    std::string piece;
    while (!got.ends_with("end\n") && !(piece = ReadSome(pipe.read.get())).empty()) got += piece;
  }
  EXPECT_EQ(std::count(got.begin(), got.end(), 'N'), static_cast<std::ptrdiff_t>(half * news.size()));
  EXPECT_LT(got.size(), OutputQueue::kBytes * 3 / 2);
  EXPECT_NE(got.find("lost\n"), std::string::npos);
}

}  // namespace
}  // namespace gxtool
