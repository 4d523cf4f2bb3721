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

TEST(MemBufferTest, ACopyThatDoesNotFitIsNone) {
  const CRefObj<IMemAlloctor> small(new CMemAlloctorEx<CMemBuffer>(/*max_buffer_size=*/4));
  EXPECT_EQ(cpy2buf(small.get(), "12345", 5), nullptr);
  EXPECT_EQ(Text(*cpy2buf(small.get(), "1234", 4)), "1234");
}

}  // namespace
