#include "object/creference.h"

#include "support/test.h"

namespace {

class IThing : public IReference {};

// Like the module's classes: an interface as public base, the counter as private base.
class Thing final : public IThing, private CReference {
 public:
  explicit Thing(int* destroyed) : destroyed_(destroyed) {}
  ~Thing() override { ++*destroyed_; }
  GX_FORWARD_REFERENCE();

 private:
  int* destroyed_;
};

TEST(ReferenceTest, OneOfManyThreadsDeletes) {
  int destroyed = 0;
  Thing* const thing = new Thing(&destroyed);
  EXPECT_EQ(thing->AddRef(), 1);
  IThing* as_interface = thing;
  EXPECT_EQ(as_interface->AddRef(), 2) << "both bases reach the same count";
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([mine = CRefObj<Thing>(thing)] {
      for (int n = 0; n < 10'000; ++n) const CRefObj<IThing> copy(mine);
    });
  }
  for (std::thread& thread : threads) thread.join();
  threads.clear();
  EXPECT_EQ(thing->Release(), 1);
  EXPECT_EQ(destroyed, 0);
  EXPECT_EQ(as_interface->Release(), 0);
  EXPECT_EQ(destroyed, 1);
}

// An object's destructor may look at the pointer that has just given the object up.
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
  pointer = *&pointer;
  EXPECT_TRUE(pointer && !seen) << "assigned to itself";
  pointer = nullptr;
  EXPECT_TRUE(seen);
}

}  // namespace
