#include "stream/mem_buffer.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

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

TEST(MemBufferTest, KeepsItsBytesWhateverTheSize) {
  EXPECT_EQ(Text(*cpy2buf("a\0b", 3)), std::string("a\0b", 3));
  const CRefObj<IBuffer> buffer = cpy2buf("abc", 3);
  EXPECT_NE(buffer->Realloc(100000), nullptr);
  EXPECT_EQ(Text(*buffer), "abc");
  EXPECT_EQ(buffer->SetSize(100001), 100000U);
  buffer->Realloc(0);
  EXPECT_EQ(buffer->GetBufferSize(), 0U);
  EXPECT_NE(buffer->Realloc(4), nullptr);

  char other[2];
  void* mine = buffer->Reset(other, sizeof other);
  EXPECT_EQ(buffer->Reset(mine, 4), other) << "exchanged, not freed";
}

TEST(MemBufferTest, WithoutMemoryNothingIsThrownAndNothingLost) {
  constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() / 4;
  EXPECT_EQ(g_pMemAlloctor->GetFreeBuffer(kTooMuch), nullptr);
  EXPECT_EQ(cpy2buf("", kTooMuch), nullptr);
  EXPECT_EQ(cpy2buf(nullptr, "abc", 3), nullptr);
  const CRefObj<IBuffer> buffer = cpy2buf("abc", 3);
  EXPECT_EQ(buffer->Realloc(kTooMuch), nullptr);
  EXPECT_EQ(Text(*buffer), "abc");
}

TEST(MemBufferTest, AllocatorLimitsItsBuffersAndOutlivesThem) {
  class LimitedAllocator : public CMemAlloctorEx<CMemBuffer> {
   public:
    explicit LimitedAllocator(bool& dead) : CMemAlloctorEx(16), dead_(dead) {}
    ~LimitedAllocator() override { dead_ = true; }

   private:
    bool& dead_;
  };
  bool dead = false;
  CRefObj<IMemAlloctor> allocator(new LimitedAllocator(dead));
  CRefObj<IBuffer> buffer = allocator->GetFreeBuffer(100);
  EXPECT_EQ(buffer->GetBufferSize(), 16U);
  EXPECT_NE(buffer->Realloc(64), nullptr) << "the maximum is for new buffers";
  allocator = nullptr;
  EXPECT_FALSE(dead);
  buffer = nullptr;
  EXPECT_TRUE(dead);
}

}  // namespace
