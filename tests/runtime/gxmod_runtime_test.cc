#include "runtime/gxmod_runtime.h"

#include "base/base_thread.h"
#include "support/log_capture.h"
#include "support/test.h"

namespace {

using testing::ElementsAre;
using testing::Pair;

class Host final : public LogKeeper {
 public:
  void Log(int level, const char* text) override {
    if (std::string(text) == "throw") throw std::runtime_error("host");
    EXPECT_FALSE(busy_.exchange(true)) << "calls overlap";
    LogKeeper::Log(level, text);
    busy_ = false;
  }

 private:
  std::atomic<bool> busy_{false};
};

class RuntimeTest : public testing::Test {
 protected:
  RuntimeTest() { runtime_->SetHost(&host_); }
  ~RuntimeTest() override { runtime_->SetHost(nullptr); }

  CGXModRuntime* const runtime_ = CSingleton_T<CGXModRuntime>::Instance();
  Host host_;
};

TEST_F(RuntimeTest, LogFormatsAndCutsAt4095Characters) {
  GXModLog(kGXModLogInfo, "throw");  // loses only this line
  GXModLog(kGXModLogWarning, "[test] %d %s", 7, "seven");
  GXModLog(kGXModLogTrace, "%s", std::string(4095, 'a').c_str());
  GXModLog(kGXModLogTrace, "%s", std::string(5000, 'b').c_str());
  EXPECT_THAT(host_.Lines(), ElementsAre(Pair(2, "[test] 7 seven"), Pair(8, std::string(4095, 'a')),
                                         Pair(8, std::string(4095, 'b'))));
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
  EXPECT_THAT(host_.Lines(),
              ElementsAre(Pair(4, "[thread] worker ended with an exception: std::bad_alloc"),
                          Pair(4, "[thread] worker ended with an exception: unknown exception")));
}

TEST_F(RuntimeTest, CallsIntoTheHostNeverOverlap) {
  const auto log = [] {
    for (int n = 0; n < 400; ++n) GXModLog(kGXModLogInfo, "%d", n);
  };
  std::thread other(log);
  log();
  other.join();
  EXPECT_EQ(host_.Lines().size(), 800u);
}

TEST_F(RuntimeTest, WithoutAHostLinesGoToStandardOutput) {
  runtime_->SetHost(nullptr);
  testing::internal::CaptureStdout();
  GXModLog(kGXModLogError, "[test] %s", "100% bare");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[test] 100% bare\n");
  EXPECT_THAT(host_.Lines(), ElementsAre());
}

}  // namespace
