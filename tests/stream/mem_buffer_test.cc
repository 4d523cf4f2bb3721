#include "stream/mem_buffer.h"

#include "stream/property_list.h"
#include "support/test.h"

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
  constexpr std::size_t kTooMuch = std::numeric_limits<std::size_t>::max() / 4;
  EXPECT_EQ(g_pMemAlloctor->GetFreeBuffer(kTooMuch), nullptr);
  EXPECT_EQ(cpy2buf("", kTooMuch), nullptr);
  EXPECT_EQ(cpy2buf(nullptr, "abc", 3), nullptr);
  const CRefObj<IBuffer> buffer = cpy2buf("a\0c", 3);
  EXPECT_NE(buffer->Realloc(100000), nullptr);
  EXPECT_EQ(buffer->Realloc(kTooMuch), nullptr);
  EXPECT_EQ(Text(*buffer), std::string("a\0c", 3));
  EXPECT_EQ(buffer->SetSize(100001), 100000U);
  buffer->Realloc(0);
  EXPECT_EQ(buffer->GetBufferSize(), 0U);
  EXPECT_NE(buffer->Realloc(4), nullptr);

  const CRefObj<IMemAlloctor> small(new CMemAlloctorEx<CMemBuffer>(/*max_buffer_size=*/4));
  EXPECT_EQ(cpy2buf(small.get(), "12345", 5), nullptr);
  EXPECT_EQ(Text(*cpy2buf(small.get(), "1234", 4)), "1234");
}

// Its destructor removes another property: the list holds no lock then, and is whole.
struct Property final : CReference {
  Property(CPropertyList& list, std::string& story, CReference* other)
      : list_(list), story_(story), other_(other) {}
  ~Property() override { story_ += list_.Remove(other_) ? "t" : "f"; }
  CPropertyList& list_;
  std::string& story_;
  CReference* const other_;
};

TEST(PropertyListTest, RemovesOneEntryAtATimeAndADestructorMayUseTheList) {
  CPropertyList list;
  std::string story;
  auto* twice = new Property(list, story, nullptr);
  auto* first = new Property(list, story, twice);
  for (Property* property : {first, twice, twice}) EXPECT_TRUE(list.Add(property));
  EXPECT_FALSE(list.Add(nullptr));
  EXPECT_TRUE(list.Remove(first));
  EXPECT_EQ(story, "t") << "the other one was in the list twice";
  list.Add(new Property(list, story, twice));
  list.Clear();
  EXPECT_EQ(story, "tff");
}

}  // namespace
