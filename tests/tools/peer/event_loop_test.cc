#include "peer/event_loop.h"

#include <gtest/gtest.h>

#include <ctime>

namespace gxtool {
namespace {

TEST(EventLoopTest, FallsAsleepWhenNothingFollowsATransfer) {
  asio::io_context io{1};
  EventLoop loop(io);
  Timer end(io, std::chrono::milliseconds(200));
  end.async_wait([](asio::error_code) {});
  asio::post(io, [&loop] { loop.OnRead(1'000'000); });
  const std::clock_t before = std::clock();  // processor time
  loop.Run();
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 20);
}

}  // namespace
}  // namespace gxtool
