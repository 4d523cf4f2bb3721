#include "stream/property_list.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "object/reference.h"

namespace {

class Property : public CReference {
 public:
  explicit Property(std::function<void()> at_end) : at_end_(std::move(at_end)) {}
  ~Property() override { at_end_(); }

 private:
  std::function<void()> at_end_;
};

TEST(PropertyListTest, ReleasesInTheOrderOfAdding) {
  CPropertyList list;
  std::string gone;
  for (const char name : {'a', 'b', 'c'}) {
    EXPECT_TRUE(list.Add(new Property([&gone, name] { gone += name; })));
  }
  EXPECT_FALSE(list.Add(nullptr));
  list.Clear();
  EXPECT_EQ(gone, "abc");
}

TEST(PropertyListTest, RemovesOneEntryAtATime) {
  CPropertyList list;
  bool gone = false;
  auto* twice = new Property([&gone] { gone = true; });
  list.Add(twice);
  list.Add(twice);
  EXPECT_TRUE(list.Remove(twice));
  EXPECT_FALSE(gone);
  EXPECT_TRUE(list.Remove(twice));
  EXPECT_TRUE(gone);
  EXPECT_FALSE(list.Remove(twice));
  EXPECT_FALSE(list.Remove(nullptr));
}

// A property that goes may take another one along, which must not meet a held lock or a half-changed list.
TEST(PropertyListTest, ADestructorMayUseTheList) {
  CPropertyList list;
  int gone = 0;
  auto* other = new Property([&gone] { ++gone; });
  auto* first = new Property([&] { gone += list.Remove(other) ? 10 : 0; });
  list.Add(first);
  list.Add(other);
  EXPECT_TRUE(list.Remove(first));
  EXPECT_EQ(gone, 11);
  list.Add(new Property([&] { list.Clear(); }));
  list.Clear();
}

}  // namespace
