#include "portfwd/flow_control.h"

#include "support/test.h"
#include "support/wait.h"

namespace {

using Account = CFlowControl::Account;
using Filled = CFlowControl::Filled;
using Verdict = CFlowControl::Verdict;

constexpr std::uint64_t kMark = 100'000;
constexpr std::uint64_t kBlock = 10'000;  // payload and overhead

std::uint64_t now_ms;

class FlowControlTest : public testing::Test {
 protected:
  void SetUp() override {
    now_ms = 1'000'000;
    std::uint32_t id = 0;
    for (Account& account : accounts_) flow_.Open(account, ++id);
  }

  Filled Queue(Account& account, std::uint64_t blocks) {
    return flow_.Queued(account, blocks * kBlock - CFlowControl::kBlockBytes);
  }
  void Release(Account& account, std::uint64_t blocks) {
    flow_.Released(account, blocks * kBlock - CFlowControl::kBlockBytes);
  }
  Verdict::Action Action(Account& account) { return flow_.Look(account).action; }

  CFlowControl flow_{{.connection_bytes = kMark,
                      .total_bytes = 2 * kMark,
                      .stuck_ms = 3'000,
                      .jam_ms = 5'000,
                      .stall_ms = 60'000},
                     [] { return now_ms; }};
  Account accounts_[4];
  Account& first_ = accounts_[0];
};

TEST_F(FlowControlTest, WaitsForALittleRoomAndTellsOnceUntilHalfIsGone) {
  Queue(accounts_[2], 1);  // below every mark
  EXPECT_EQ(Queue(first_, 10), Filled::kNothing);
  EXPECT_EQ(Action(first_), Verdict::kGoOn);
  EXPECT_EQ(Queue(first_, 1), Filled::kConnection);
  EXPECT_EQ(Action(accounts_[1]), Verdict::kGoOn) << "the other connection is full";
  Release(first_, 1);
  EXPECT_EQ(Action(first_), Verdict::kWait);
  Release(first_, 1);
  EXPECT_EQ(Action(first_), Verdict::kGoOn);
  EXPECT_EQ(Queue(first_, 2), Filled::kNothing) << "it has been told already";
  EXPECT_EQ(Action(first_), Verdict::kWait);
  Release(first_, 6);
  EXPECT_EQ(Queue(first_, 6), Filled::kConnection) << "full again after half had gone";
}

TEST_F(FlowControlTest, AllTogetherHaveAMark) {
  for (Account& account : accounts_) Queue(account, 5);
  EXPECT_EQ(Queue(first_, 1), Filled::kTotal);
  EXPECT_EQ(Action(accounts_[3]), Verdict::kWait);
  for (int i = 0; i < 2; ++i) flow_.Close(accounts_[i]);
  EXPECT_EQ(flow_.Owed(accounts_[0]), 0U);
  EXPECT_EQ(Action(accounts_[3]), Verdict::kGoOn) << "closed connections owe nothing";
  EXPECT_EQ(Queue(accounts_[0], 100), Filled::kNothing) << "a closed connection is not counted";
}

// The reader goes on beyond the mark only while a Write takes no byte for seconds, and up to twice the mark.
// There the connection is cut.
TEST_F(FlowControlTest, FullRoadsAreToldFromSlowOnes) {
  Queue(first_, 11);
  for (int i = 0; i < 10; ++i) {
    flow_.WriteWaits(now_ms);
    now_ms += 2'900;
    EXPECT_EQ(Action(first_), Verdict::kWait) << "the Write takes bytes, if slowly";
  }
  now_ms += 100;
  EXPECT_EQ(Action(first_), Verdict::kGoOn);
  Queue(first_, 9);
  EXPECT_EQ(Action(first_), Verdict::kGoOn);
  Queue(first_, 1);
  EXPECT_EQ(Action(first_), Verdict::kWait);
  flow_.WriteWaits(now_ms);
  flow_.WriteEnds();
  now_ms += 10'000;
  EXPECT_EQ(Action(first_), Verdict::kWait) << "no Write is running";
  flow_.WriteWaits(now_ms);
  EXPECT_EQ(flow_.Look(first_).until_ms, now_ms + 5'000);
  now_ms += 5'000;
  const Verdict verdict = flow_.Look(first_);
  EXPECT_EQ(verdict.action, Verdict::kCut);
  EXPECT_EQ(verdict.id, 1U);
  EXPECT_EQ(Action(first_), Verdict::kGoOn) << "a cut connection is not counted";
}

TEST_F(FlowControlTest, WhoTakesNothingIsCut) {
  for (Account& account : accounts_) Queue(account, 5);
  now_ms += 100'000;
  Queue(first_, 1);  // from here on the total is full, and the reader waits for all of them
  EXPECT_EQ(flow_.Look(first_).until_ms, now_ms + 60'000) << "the time before that does not count";
  now_ms += 59'000;
  flow_.Took(first_);
  EXPECT_EQ(Action(first_), Verdict::kWait);
  Queue(accounts_[2], 1);
  now_ms += 1'000;
  const Verdict verdict = flow_.Look(first_);
  EXPECT_EQ(verdict.action, Verdict::kCut);
  EXPECT_EQ(verdict.id, 3U) << "the one that owes most";
  now_ms += 58'000;
  while (Action(first_) == Verdict::kCut) {
  }
  EXPECT_EQ(flow_.Owed(first_), 6 * kBlock) << "it has taken something";
}

// Each of these events wakes the reader. The clock advances a millisecond at each look; only the limit of a
// stuck Write is near.
TEST(FlowControlThreadsTest, WakesTheReader) {
  const std::function<void(CFlowControl&, Account&)> events[] = {
      [](CFlowControl& flow, Account& account) { flow.Released(account, kMark); },
      [](CFlowControl& flow, Account& account) { flow.Close(account); },
      [](CFlowControl& flow, Account&) { flow.WriteWaits(now_ms); },
      [](CFlowControl& flow, Account&) { flow.Stop(); },
  };
  static std::atomic<std::uint64_t> looks;
  now_ms = 1'000'000;
  for (std::size_t i = 0; i < std::size(events); ++i) {
    CFlowControl flow({.connection_bytes = kMark, .stuck_ms = 10}, [] { return now_ms + ++looks; });
    Account account;
    flow.Open(account, 7);
    ASSERT_EQ(flow.Queued(account, kMark), Filled::kConnection);
    looks = 0;
    auto reader = std::async(std::launch::async, [&] { return flow.WaitForRoom(account); });
    EXPECT_TRUE(gxtest::Eventually([] { return looks != 0; }));
    flow.Owed(account);  // waits for the lock: from here on the reader sleeps
    EXPECT_EQ(reader.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    events[i](flow, account);
    EXPECT_EQ(reader.wait_for(gxtest::kPatience), std::future_status::ready) << i;
    flow.Stop();
    EXPECT_EQ(reader.get(), std::nullopt);
    flow.Close(account);
  }
}

}  // namespace
