// A host that was compiled against these headers must work with every later build of the module: the slots of
// the virtual tables, the entry record and the packing of versions must never move.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "gxmod/control_ssh.h"
#include "gxmod/module.h"

namespace {

#if defined(__x86_64__)
// A pointer to a virtual member holds the offset in the table, plus one.
template <class Member>
std::size_t Slot(Member member) {
  std::uintptr_t offset = 0;
  std::memcpy(&offset, &member, sizeof offset);
  return (offset - 1) / sizeof(void*);
}

TEST(AbiTest, SlotsFollowTheOrderOfDeclaration) {
  EXPECT_EQ(Slot(&IReference::AddRef), 2u) << "after the destructor pair";
  EXPECT_EQ(Slot(&IReference::Release), 3u);

  EXPECT_EQ(Slot(&IGXModRuntime::Log), 0u) << "no destructor, no base";
  EXPECT_EQ(Slot(&IGXModRuntime::GetConfig), 1u);
  EXPECT_EQ(Slot(&IGXModRuntime::SaveConfig), 2u);
  EXPECT_EQ(Slot(&IGXModRuntime::GetEnv), 3u);

  EXPECT_EQ(Slot(&IGXModData::GetType), 4u);
  EXPECT_EQ(Slot(&IGXModData::GetText), 5u);
  EXPECT_EQ(Slot(&IGXModData::GetUInt64), 6u);

  EXPECT_EQ(Slot(&IGXModCreateParams::GetProperty), 4u);

  EXPECT_EQ(Slot(&IPluginStreamRaw::Read), 4u);
  EXPECT_EQ(Slot(&IPluginStreamRaw::Write), 5u);
  EXPECT_EQ(Slot(&IPluginStreamRaw::Close), 6u);

  EXPECT_EQ(Slot(&IControlSshListener::OnLocalAddress), 4u);
  EXPECT_EQ(Slot(&IControlSshListener::OnExit), 5u);
  EXPECT_EQ(Slot(&IControlSshListener::GetRemoteAddress), 6u);

  EXPECT_EQ(Slot(&IGXModInterface::GetInterface), 4u);
  EXPECT_EQ(Slot(&IGXModInterface::SetProperty), 5u);
  EXPECT_EQ(Slot(&IGXModInterface::GetProperty), 6u);

  EXPECT_EQ(Slot(&IAutoConfigRaw::Load), 4u);
  EXPECT_EQ(Slot(&IPluginRaw::InitInstance), 5u);
  EXPECT_EQ(Slot(&IPluginRaw::Run), 6u);
  EXPECT_EQ(Slot(&IPluginRaw::ExitInstance), 7u);
  EXPECT_EQ(Slot(&IPluginRaw::SetPermission), 8u);
  EXPECT_EQ(Slot(&IPluginRaw::Empty), 9u);
  EXPECT_EQ(Slot(&IPluginRaw::GetPluginStream), 10u);
}
#endif

TEST(AbiTest, EntryRecordIsFourteenFieldsOfEightBytes) {
  EXPECT_EQ(sizeof(gxlink_module_t), 14u * 8);
  EXPECT_EQ(offsetof(gxlink_module_t, init), 2u * 8);
  EXPECT_EQ(offsetof(gxlink_module_t, create), 4u * 8);
  EXPECT_EQ(offsetof(gxlink_module_t, reserved), 6u * 8);
}

TEST(AbiTest, VersionsPackIntoTheirBits) {
  EXPECT_EQ(GXModPackVersion({2, 0, 0}), 0x0002'0000'0000'0000u);
  const GXModVersion version = GXModUnpackVersion(0xFFFE'FFFD'FFFF'FFFCu);
  EXPECT_EQ(version.major_number, 0xFFFE);
  EXPECT_EQ(version.minor_number, 0xFFFD);
  EXPECT_EQ(version.build_number, 0xFFFF'FFFCu);
}

}  // namespace
