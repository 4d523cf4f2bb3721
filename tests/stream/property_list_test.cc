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

// A property that goes may take another one along, which must not meet a held lock or a half-changed list.
TEST(PropertyListTest, RemovesOneEntryAtATimeAndADestructorMayUseTheList) {
  CPropertyList list;
  std::string gone;
  auto* twice = new Property([&] { gone += 't'; });
  auto* first = new Property([&] { gone += list.Remove(twice) ? "f" : "?"; });
  for (Property* property : {first, twice, twice}) EXPECT_TRUE(list.Add(property));
  EXPECT_FALSE(list.Add(nullptr));
  EXPECT_TRUE(list.Remove(first));
  EXPECT_EQ(gone, "f");
  EXPECT_FALSE(list.Remove(nullptr));
  for (const char name : {'a', 'b'}) list.Add(new Property([&gone, name] { gone += name; }));
  list.Add(new Property([&] { list.Clear(); }));
  list.Clear();
  EXPECT_EQ(gone, "ftab");
}

}  // namespace
