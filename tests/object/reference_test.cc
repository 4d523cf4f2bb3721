#include "object/reference.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

class IThing : public IReference {
 public:
  virtual int Value() const = 0;
};

// Shaped like the module's classes: an interface in public, the counting in private.
class Thing final : public IThing, private CReference {
 public:
  explicit Thing(int* destroyed) : destroyed_(destroyed) {}
  ~Thing() override { ++*destroyed_; }

  GX_FORWARD_REFERENCE();
  using CReference::DropHold;
  int Value() const override { return 42; }

 private:
  int* destroyed_;
};

class ReferenceTest : public testing::Test {
 protected:
  int destroyed_ = 0;
  Thing* thing_ = new Thing(&destroyed_);
};

TEST_F(ReferenceTest, CountsFromZeroAndDeletesAtZero) {
  EXPECT_EQ(thing_->AddRef(), 1);
  IThing* as_interface = thing_;
  EXPECT_EQ(as_interface->AddRef(), 2) << "both bases reach the same count";
  EXPECT_EQ(thing_->Release(), 1);
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(as_interface->Release(), 0);
  EXPECT_EQ(destroyed_, 1);
}

TEST_F(ReferenceTest, OneOfManyThreadsDeletes) {
  const CRefObj<Thing> kept(thing_);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([mine = kept] {
      for (int n = 0; n < 10'000; ++n) const CRefObj<IThing> copy(mine);
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(destroyed_, 0);
  EXPECT_EQ(thing_->AddRef(), 2);
  EXPECT_EQ(thing_->Release(), 1);
}

TEST_F(ReferenceTest, RefObjTakesAndGivesUpOneReferenceEach) {
  CRefObj<Thing> first(thing_);
  {
    CRefObj<IThing> converted = first;
    CRefObj<Thing> moved = std::move(first);
    EXPECT_FALSE(first);
    EXPECT_TRUE(moved == CRefObj<Thing>(thing_));
    EXPECT_EQ(converted->Value(), 42);
    first = moved;
  }
  EXPECT_EQ(destroyed_, 0);
  first = *&first;
  EXPECT_EQ(destroyed_, 0) << "an assignment to itself";

  int other_destroyed = 0;
  first = new Thing(&other_destroyed);
  EXPECT_EQ(destroyed_, 1) << "the old target was given up";
  first = nullptr;
  EXPECT_FALSE(first);
  EXPECT_EQ(other_destroyed, 1);
}

TEST_F(ReferenceTest, DetachAndAttachMoveAReferenceWithoutCounting) {
  Thing* counted = CRefObj<Thing>(thing_).Detach();
  EXPECT_EQ(destroyed_, 0);
  { const CRefObj<Thing> owner = CRefObj<Thing>::Attach(counted); }
  EXPECT_EQ(destroyed_, 1);
}

// The object that a pointer gives up may, in its destructor, look at that pointer.
TEST(RefObjTest, AssignmentSetsTheNewTargetBeforeItReleasesTheOld) {
  struct Watcher final : CReference {
    ~Watcher() override { seen = watched->get() != this; }
    explicit Watcher(CRefObj<Watcher>* pointer, bool& result) : watched(pointer), seen(result) {}
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
