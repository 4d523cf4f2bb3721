// A host that was compiled against these headers must work with every later build of the module: the slots of
// the virtual tables, the entry record and the packing of versions must never move.

#include "gxmod/control_ssh.h"
#include "gxmod/module.h"
#include "support/test.h"

namespace {

#if defined(__x86_64__)
// A pointer to a virtual member holds the offset in the table, plus one.
template <class... Members>
bool FillSlotsFrom(std::size_t slot, Members... members) {
  const auto next = [&slot](auto member) {
    std::uintptr_t offset = 0;
    std::memcpy(&offset, &member, sizeof offset);
    return offset == 1 + sizeof(void*) * slot++;
  };
  return (next(members) && ...);
}

TEST(AbiTest, SlotsFollowTheOrderOfDeclaration) {
  using Runtime = IGXModRuntime;
  EXPECT_TRUE(FillSlotsFrom(2, &IReference::AddRef, &IReference::Release)) << "after the destructor pair";
  EXPECT_TRUE(FillSlotsFrom(0, &Runtime::Log, &Runtime::GetConfig, &Runtime::SaveConfig, &Runtime::GetEnv))
      << "no destructor, no base";
  EXPECT_TRUE(FillSlotsFrom(4, &IGXModData::GetType, &IGXModData::GetText, &IGXModData::GetUInt64));
  EXPECT_TRUE(FillSlotsFrom(4, &IGXModCreateParams::GetProperty));
  EXPECT_TRUE(FillSlotsFrom(4, &IPluginStreamRaw::Read, &IPluginStreamRaw::Write, &IPluginStreamRaw::Close));
  EXPECT_TRUE(FillSlotsFrom(4, &IControlSshListener::OnLocalAddress, &IControlSshListener::OnExit,
                            &IControlSshListener::GetRemoteAddress));
  EXPECT_TRUE(FillSlotsFrom(4, &IGXModInterface::GetInterface, &IGXModInterface::SetProperty,
                            &IGXModInterface::GetProperty));
  EXPECT_TRUE(FillSlotsFrom(4, &IAutoConfigRaw::Load, &IPluginRaw::InitInstance, &IPluginRaw::Run,
                            &IPluginRaw::ExitInstance, &IPluginRaw::SetPermission, &IPluginRaw::Empty,
                            &IPluginRaw::GetPluginStream));
}
#endif

TEST(AbiTest, TheEntryRecordAndVersionsKeepTheirPlaces) {
  EXPECT_EQ(sizeof(gxlink_module_t), 14u * 8);
  EXPECT_EQ(offsetof(gxlink_module_t, init), 2u * 8);
  EXPECT_EQ(offsetof(gxlink_module_t, create), 4u * 8);
  EXPECT_EQ(offsetof(gxlink_module_t, reserved), 6u * 8);
  const GXModVersion version = GXModUnpackVersion(0xFFFE'FFFD'FFFF'FFFCu);
  EXPECT_EQ(version.major_number, 0xFFFE);
  EXPECT_EQ(version.minor_number, 0xFFFD);
  EXPECT_EQ(version.build_number, 0xFFFF'FFFCu);
  EXPECT_EQ(GXModPackVersion(version), 0xFFFE'FFFD'FFFF'FFFCu);
}

}  // namespace
