#include "stream/ibase_stream.h"

#include <gtest/gtest.h>

#include "object/reference.h"

namespace {

// A decorator that has taken every facet away.
class BareStream : public IBaseStream, private CReference {
 public:
  GX_FORWARD_REFERENCE();
  IUserDataImpl* UserDataImpl() override { return nullptr; }
  IHandlerImpl* HandlerImpl() override { return nullptr; }
  IPropertyList_Impl* PropertyListImpl() override { return nullptr; }
  IIOOperatorImpl* IOOperatorImpl() override { return nullptr; }
  IStatusImpl* StatusImpl() override { return nullptr; }
  IThreadSafty* ThreadSaftyImpl() override { return nullptr; }
};

TEST(IBaseStreamTest, WithoutFacetsEveryAnswerIsNeutral) {
  BareStream stream;
  IReference* property = static_cast<IBaseStream*>(&stream);
  EXPECT_EQ(stream.Read(nullptr, 1, kNoTimeout), 0U);
  EXPECT_EQ(stream.WriteEnd(), 0U);
  EXPECT_FALSE(stream.Disconnect(0));
  EXPECT_FALSE(stream.IsConnect());
  EXPECT_FALSE(stream.AddProperty(property));
  EXPECT_EQ(stream.SetUserData(property), nullptr);
  EXPECT_EQ(stream.GetPeerName(), nullptr);
  EXPECT_EQ(stream.Handler(), nullptr);
}

}  // namespace
