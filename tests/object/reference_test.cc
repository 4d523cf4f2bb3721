#include "object/reference.h"

#include "support/test.h"

namespace {

class IThing : public IReference {};

// Shaped like the module's classes: an interface in public, the counting in private.
class Thing final : public IThing, private CReference {
 public:
  explicit Thing(int* destroyed) : destroyed_(destroyed) {}
  ~Thing() override { ++*destroyed_; }
  GX_FORWARD_REFERENCE();

 private:
  int* destroyed_;
};

class ReferenceTest : public testing::Test {
 protected:
  int destroyed_ = 0;
  Thing* thing_ = new Thing(&destroyed_);
};

TEST_F(ReferenceTest, OneOfManyThreadsDeletes) {
  EXPECT_EQ(thing_->AddRef(), 1);
  IThing* as_interface = thing_;
  EXPECT_EQ(as_interface->AddRef(), 2) << "both bases reach the same count";
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([mine = CRefObj<Thing>(thing_)] {
      for (int n = 0; n < 10'000; ++n) const CRefObj<IThing> copy(mine);
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(thing_->Release(), 1);
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(as_interface->Release(), 0);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(ReferenceTest, RefObjTakesAndGivesUpOneReferenceEach) {
  CRefObj<Thing> first(thing_);
  {
    CRefObj<IThing> converted = first;
    CRefObj<Thing> moved = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_TRUE(moved == CRefObj<Thing>(thing_));
    first = moved;
  }
  EXPECT_EQ(destroyed_, 0);
  first = *&first;
  first = CRefObj<Thing>::Attach(first.Detach());
  EXPECT_EQ(destroyed_, 0);

  int other_destroyed = 0;
  first = new Thing(&other_destroyed);
  EXPECT_EQ(destroyed_, 1) << "the old target was given up";
  first = nullptr;
  EXPECT_FALSE(first);
  EXPECT_EQ(other_destroyed, 1);
}

// The object that a pointer gives up may, in its destructor, look at that pointer.
TEST(RefObjTest, AssignmentSetsTheNewTargetBeforeItReleasesTheOld) {
  struct Watcher final : CReference {
    Watcher(CRefObj<Watcher>* pointer, bool& result) : watched(pointer), seen(result) {}
    ~Watcher() override { seen = watched->get() != this; }
    CRefObj<Watcher>* watched;
    bool& seen;
  };
  bool seen = false;
  CRefObj<Watcher> pointer;
  pointer = new Watcher(&pointer, seen);
  pointer = nullptr;
  EXPECT_TRUE(seen);
}

}  // namespace
