#include "runtime/gxmod_runtime.h"

#include "base/base_thread.h"
#include "support/log_capture.h"
#include "support/test.h"

namespace {

class Host final : public LogKeeper {
 public:
  void Log(int level, const char* text) override {
    if (std::string(text) == "throw") throw std::runtime_error("host");
    if (busy_.exchange(true)) overlapped_ = true;
    told_.emplace_back(level, text);
    busy_ = false;
  }

  std::vector<Line> told_;  // not guarded: the calls shall not overlap
  std::atomic<bool> busy_{false};
  std::atomic<bool> overlapped_{false};
};

class RuntimeTest : public testing::Test {
 protected:
  RuntimeTest() { runtime_->SetHost(&host_); }
  ~RuntimeTest() override { runtime_->SetHost(nullptr); }

  CGXModRuntime* const runtime_ = CSingleton_T<CGXModRuntime>::Instance();
  Host host_;
};

TEST_F(RuntimeTest, LogFormatsAndCutsAt4095Characters) {
  GXModLog(kGXModLogInfo, "throw");  // costs the line only
  GXModLog(kGXModLogWarning, "[test] %d %s", 7, "seven");
  GXModLog(kGXModLogTrace, "%s", std::string(4095, 'a').c_str());
  GXModLog(kGXModLogTrace, "%s", std::string(5000, 'b').c_str());
  ASSERT_EQ(host_.told_.size(), 3u);
  EXPECT_EQ(host_.told_[0], std::make_pair(2, std::string("[test] 7 seven")));
  EXPECT_EQ(host_.told_[1].second, std::string(4095, 'a'));
  EXPECT_EQ(host_.told_[2], std::make_pair(8, std::string(4095, 'b')));
}

class Unlucky final : public CBaseThread {
 public:
  Unlucky() { SetThreadName("worker"); }
  ~Unlucky() override { Stop(); }

 private:
  void OnBegin() override { throw std::bad_alloc(); }
  bool ThreadLoop() override { return false; }
  void OnExit() override { throw 1; }
};

TEST_F(RuntimeTest, AThreadThatAnExceptionEndsSaysSo) {
  {
    Unlucky thread;
    EXPECT_TRUE(thread.Run());
  }
  const auto line = [](const std::string& what) {
    return std::make_pair(4, "[thread] worker ended with an exception: " + what);
  };
  EXPECT_EQ(host_.told_, (std::vector{line("std::bad_alloc"), line("unknown exception")}));
}

TEST_F(RuntimeTest, CallsIntoTheHostNeverOverlap) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int n = 0; n < 200; ++n) GXModLog(kGXModLogInfo, "%d", n);
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(host_.told_.size(), 800u);
  EXPECT_FALSE(host_.overlapped_);
}

TEST_F(RuntimeTest, WithoutAHostLinesGoToStandardOutputAndTheRestDoesNothing) {
  runtime_->SetHost(nullptr);
  testing::internal::CaptureStdout();
  GXModLog(kGXModLogError, "[test] %s", "100% bare");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[test] 100% bare\n");
  EXPECT_TRUE(host_.told_.empty());

  IGXModData* out = nullptr;
  EXPECT_EQ(runtime_->GetConfig(true, "section", "key", &out, "fallback"), 0);
  EXPECT_EQ(runtime_->SaveConfig(true, "section", "key", "value"), 0);
  EXPECT_EQ(runtime_->GetEnv("PATH"), nullptr);
}

}  // namespace
