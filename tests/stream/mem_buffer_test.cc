#include "stream/mem_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

#include "object/object_monitor.h"

// The sanitizers' malloc ends the process when it is asked for too much; the system's fails.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

std::string Text(const IBuffer& buffer) {
  return {static_cast<const char*>(buffer.GetPointer()), buffer.GetSize()};
}

// Tells when it dies, and fills what it makes.
class LimitedAllocator : public CMemAlloctorEx<CMemBuffer> {
 public:
  LimitedAllocator(std::size_t maximum, bool& dead) : CMemAlloctorEx(maximum), dead_(dead) {}
  ~LimitedAllocator() override { dead_ = true; }

  CRefObj<IBuffer> CreateBuffer(std::size_t size) override {
    CRefObj<IBuffer> buffer = CMemAlloctorEx::CreateBuffer(size);
    buffer->SetSize(size);
    return buffer;
  }

 private:
  bool& dead_;
};

TEST(MemBufferTest, CopiesBytes) {
  EXPECT_EQ(Text(*cpy2buf("a\0b", 3)), std::string("a\0b", 3));
  EXPECT_EQ(cpy2buf(nullptr, "abc", 3), nullptr);
  const CRefObj<IBuffer> empty = cpy2buf("", 0);
  EXPECT_EQ(empty->GetPointer(), nullptr);
  EXPECT_EQ(empty->GetBufferSize(), 0U);
  EXPECT_TRUE(g_pMemAlloctor->FreeBuff(empty.get()));
  EXPECT_FALSE(g_pMemAlloctor->FreeBuff(nullptr));
}

TEST(MemBufferTest, ReallocKeepsTheBytesAndMayShrinkToNothing) {
  const CRefObj<IBuffer> buffer = cpy2buf("abc", 3);
  EXPECT_NE(buffer->Realloc(100000), nullptr);
  EXPECT_EQ(Text(*buffer), "abc");
  EXPECT_EQ(buffer->GetActualSize(), 100000U);
  EXPECT_EQ(buffer->SetSize(100001), 100000U);
  EXPECT_EQ(g_pMemAlloctor->Realloc(nullptr, 1), nullptr);
  buffer->Realloc(0);
  EXPECT_EQ(buffer->GetBufferSize(), 0U);
  EXPECT_NE(buffer->Realloc(4), nullptr);
}

TEST(MemBufferTest, WithoutMemoryNothingIsThrownAndNothingLost) {
  constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() / 4;
  EXPECT_EQ(g_pMemAlloctor->GetFreeBuffer(kTooMuch), nullptr);
  EXPECT_EQ(cpy2buf("", kTooMuch), nullptr);
  const CRefObj<IBuffer> buffer = cpy2buf("abc", 3);
  EXPECT_EQ(buffer->Realloc(kTooMuch), nullptr);
  EXPECT_EQ(Text(*buffer), "abc");
  EXPECT_EQ(buffer->GetBufferSize(), 3U);
}

TEST(MemBufferTest, ResetExchangesTheBlockAndFreesNothing) {
  const CRefObj<IBuffer> buffer = cpy2buf("abc", 3);
  char other[2];
  void* mine = buffer->Reset(other, sizeof other);
  EXPECT_EQ(std::memcmp(mine, "abc", 3), 0);
  EXPECT_EQ(buffer->GetSize(), 3U) << "the filled size is the caller's to mend";
  EXPECT_EQ(buffer->Reset(mine, 3), other);
}

TEST(MemBufferTest, AllocatorLimitsItsBuffersAndOutlivesThem) {
  bool dead = false;
  CRefObj<IMemAlloctor> allocator(new LimitedAllocator(16, dead));
  CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(100);
  EXPECT_EQ(buffer->GetBufferSize(), 16U);
  EXPECT_EQ(buffer->GetSize(), 16U) << "GetFreeBuffer did not ask the derived CreateBuffer";
  EXPECT_NE(buffer->Realloc(64), nullptr) << "the maximum is for new buffers";
  EXPECT_EQ(buffer->GetCurAlloctor(), allocator);
  allocator = nullptr;
  EXPECT_FALSE(dead);
  buffer = nullptr;
  EXPECT_TRUE(dead);
}

TEST(MemBufferTest, BuffersAreListedButNotCounted) {
  const CRefObj<IBuffer> buffer = cpy2buf("abc", 3);
  std::string counts;
  dump_monitoring_objects2(counts);
  EXPECT_EQ(counts.rfind("CMemBuffer_count: 0\r\nCMemBuffer_alive: 0\r\n", 0), 0U) << counts;
}

}  // namespace
