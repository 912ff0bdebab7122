// Dedicated hot spares: making, releasing, and when neither is allowed.

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A mirror md_d3 of sda and sdb, in chunks as this plug-in makes them; sdc and the small sdd are free.
const std::string MIRROR = DisksOf({300000, 300000, 300000, 200000}, MirrorOfTwo("md_d3", R"("chunk": 64)"));

unsigned int Make(CTestInstance& plugin, const std::string& disk, unsigned long array = 3) {
  return Execute(plugin, plugin.Drive(disk).m_ID, Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, array));
}
unsigned int Release(CTestInstance& plugin, const std::string& disk) {
  return Execute(plugin, plugin.Drive(disk).m_ID, Operation(PI::OP_DELETE_DEDICATED_HOTSPARE));
}

/// What the operations change in the model: of the drive, of its array.
std::string Model(const CTestInstance& plugin, const CRVXPhysicalDrive& drive) {
  const CRVXLogicalDrive& array = plugin.m_LogicalDrives.front();
  return Text("%d: %d %d %d of %d, busy %d; %d: busy %d", drive.m_UpdateCounter, drive.m_Status,
              drive.m_SpareState, drive.m_UsableSize, drive.m_IsMemberOf, drive.m_Busy, array.m_UpdateCounter,
              array.m_Busy);
}

TEST(Spare, IsMadeAndReleased) {
  for (const bool missing : {false, true}) {
    SMdRig rig(MIRROR);
    CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
    {
      const CTraceCapture trace(TRACE_INFORMATION);
      EXPECT_EQ(missing ? rig.m_Plugin.CreateMissingDrive(drive, 3) : Make(rig.m_Plugin, "sdc"), PI::OK);
      EXPECT_EQ(trace.Shows("Src/piRVXPhysicalDrive", "CreateMissingDrive() add spare disk to slot 2"),
                missing);
    }
    EXPECT_EQ(Model(rig.m_Plugin, drive), "1: 40098 40263 0 of 3, busy 1; 1: busy 0");
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), !missing) << "set by the operation";
    EXPECT_THAT(rig.m_Door.OpenedForWriting(), ElementsAre("/dev/sdc"));
    EXPECT_EQ(SuperBlockOf(rig.m_Machine, drive).dev_number, 2U);
    EXPECT_EQ(ArrayInfo(rig.m_Machine, "md_d3").spare_disks, 1);

    drive.m_Busy = false;
    EXPECT_EQ(Release(rig.m_Plugin, "sdc"), PI::OK);
    EXPECT_EQ(Model(rig.m_Plugin, drive), "2: 40099 40262 299864 of -1, busy 1; 2: busy 0");
    EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent));
    EXPECT_EQ(ArrayInfo(rig.m_Machine, "md_d3").spare_disks, 0);
    EXPECT_EQ(SuperBlockOf(rig.m_Machine, drive).magic, 0U);
    EXPECT_THAT(rig.m_Own.m_Changes, ElementsAre("add 2 8 32 -1 0", "remove 2080"));
  }
}

TEST(Spare, WhatMdRefusesIsWipedAndTheModelStays) {
  // A disk that is too small; and a mirror of another maker, without chunks: whole chunks of nothing are no
  // room for data.
  for (const auto& [disk, chunk] : {std::pair{"sdd", 64}, {"sdc", 0}}) {
    SCOPED_TRACE(disk);
    SRig rig(DisksOf({300000, 300000, 300000, 200000}, MirrorOfTwo("md_d3", Text(R"("chunk": %d)", chunk))));
    CRVXPhysicalDrive& drive = rig.m_Plugin.Drive(disk);
    const auto before = Model(rig.m_Plugin, drive);
    EXPECT_EQ(Make(rig.m_Plugin, disk), PI::ERR_DEVICE_IO);
    EXPECT_EQ(Model(rig.m_Plugin, drive), before);
    EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
    EXPECT_THAT(rig.m_Door.OpenedForWriting(), ElementsAre(drive.DevicePath(), drive.DevicePath()));
    const md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
    EXPECT_EQ(record.magic, 0U);
    EXPECT_EQ(record.max_dev, 0U);
  }
}

TEST(Spare, FindsAWorkingMemberAndAFreeSlotInWhatMdTells) {
  std::vector<mdu_disk_info_t> full;
  for (int number = 0; number < 384; ++number) full.push_back({number, 8, 16, 1, 6});
  // What md tells of its disks, how many it counts, the status, and the slot.
  const std::tuple<const char*, std::vector<mdu_disk_info_t>, int, unsigned int, int> cases[] = {
      {"a write-mostly member is passed over", {{0, 8, 176, 0, 6 + 512}, {1, 8, 16, 1, 6}}, 2, 0, 2},
      {"spares do not count", {{0, 8, 176, -1, 0}, {1, 8, 176, -1, 0}, {2, 8, 0, 0, 6}}, 1, 0, 3},
      {"a removed one is free", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 8}}, 2, 0, 1},
      {"a faulty one is not", {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}, 2, 0, 2},
      {"the count ends on a member that is not in sync", {{0, 8, 16, 0, 0}}, 1, 0, 1},
      {"the count ends on one that is gone", {{0, 8, 176, 0, 0}}, 1, 20032, -1},
      {"in sync without a number", {{0, 0, 0, 0, 6}}, 2, 20000, -1},
      {"in sync without a slot", {{0, 8, 0, -1, 6}}, 2, 20000, -1},
      {"the last number", {{383, 8, 0, 0, 6}}, 2, 0, 0},
      {"a number too far", {{384, 8, 0, 0, 6}}, 2, 20000, -1},
      {"every slot in use", full, 2, 20072, -1}};
  for (const auto& [what, disks, raidDisks, status, slot] : cases) {
    SCOPED_TRACE(what);
    SMdRig rig(MIRROR);
    for (const mdu_disk_info_t& disk : disks) rig.m_Own.m_Disks[disk.number] = disk;
    rig.m_Own.m_Array = [count = raidDisks](mdu_array_info_t& info) { info.raid_disks = count; };
    rig.m_Own.m_Answers[ADD_NEW_DISK] = 0;
    EXPECT_EQ(Make(rig.m_Plugin, "sdc"), status);
    EXPECT_EQ(rig.m_Door.OpenedForWriting().size(), status == 0 ? 1U : 0U);
    if (status != 0) continue;
    EXPECT_THAT(rig.m_Own.m_Changes, ElementsAre(Text("add %d 8 32 -1 0", slot)));
    const md_superblock1 record = SuperBlockOf(rig.m_Machine, rig.m_Plugin.Drive("sdc"));
    EXPECT_EQ(record.dev_number, static_cast<std::uint32_t>(slot));
    EXPECT_EQ(record.dev_roles[slot], md_superblock1::ROLE_SPARE);
  }
}

TEST(Spare, TakesOneArrayNumber) {
  SRig rig(MIRROR);
  const unsigned long id = rig.m_Plugin.Drive("sdc").m_ID;
  PI::COperation operation = Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 3);
  operation.m_Parameters.resize(2, operation.m_Parameters.front());
  EXPECT_EQ(Execute(rig.m_Plugin, id, operation), PI::ERR_INVALID_CONFIGURATION) << "two parameters";
  operation.m_Parameters.clear();
  EXPECT_EQ(Execute(rig.m_Plugin, id, operation), PI::ERR_INVALID_CONFIGURATION);
  operation = Operation(PI::OP_CREATE_DEDICATED_HOTSPARE, 3);
  operation.m_Parameters.front().SetValue("3");
  EXPECT_EQ(Execute(rig.m_Plugin, id, operation), PI::ERR_WRONG_PARAMETER_TYPE);
  for (const unsigned long unknown : {4UL, 0xFFFFFFFFUL})
    EXPECT_EQ(Make(rig.m_Plugin, "sdc", unknown), PI::ERR_NOT_AVAILABLE) << unknown;
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
  EXPECT_EQ(Make(rig.m_Plugin, "sdc", 0x100000003), PI::OK) << "read as 64 bits, used as 32";
}

TEST(SpareRelease, GoesByWhatMdSaysOfTheDisk) {
  const std::tuple<const char*, std::vector<mdu_disk_info_t>, unsigned int> cases[] = {
      {"a spare", {{0, 8, 0, 0, 6}, {2, 8, 32, -1, 0}}, 0},
      {"a faulty one", {{0, 8, 32, -1, 1}}, 0},
      {"an active member", {{0, 8, 32, 0, 6}}, 20000},
      {"the first answer counts", {{0, 8, 32, 0, 6}, {1, 8, 32, -1, 0}}, 20000},
      {"a removed answer does not", {{0, 8, 32, 0, 8}, {1, 8, 32, -1, 0}}, 0},
      {"a partition of it", {{0, 8, 33, -1, 0}}, 20000},
      {"the last number", {{383, 8, 32, -1, 0}}, 0},
      {"a number too far", {{384, 8, 32, -1, 0}}, 20000}};
  for (const auto& [what, disks, status] : cases)
    for (const int error : {0, EBUSY}) {  // md may not let go
      SCOPED_TRACE(what);
      SMdRig rig(MIRROR);
      ASSERT_EQ(Make(rig.m_Plugin, "sdc"), PI::OK);
      rig.m_Machine.Apply(R"({"remove_member": {"array": "md_d3", "disk": "sdc"}})");
      for (const mdu_disk_info_t& disk : disks) rig.m_Own.m_Disks[disk.number] = disk;
      rig.m_Own.m_Answers[HOT_REMOVE_DISK] = error;
      EXPECT_EQ(Release(rig.m_Plugin, "sdc"), status);
      const CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
      EXPECT_EQ(drive.m_Status, status == 0 ? PI::STATUS_READY : PI::STATUS_SPARE);
      EXPECT_EQ(SuperBlockOf(rig.m_Machine, drive).magic == 0, status == 0);
    }
  SRig rig(MIRROR);
  EXPECT_EQ(Release(rig.m_Plugin, "sdd"), PI::ERR_NOT_AVAILABLE) << "a free disk is no spare";
}

TEST(SpareCheck, AllowsWhatTheModelAllows) {
  const unsigned int CREATE = PI::OP_CREATE_DEDICATED_HOTSPARE;
  const unsigned int RELEASE = PI::OP_DELETE_DEDICATED_HOTSPARE;
  const unsigned int REPLACE = PI::OP_REPLACE_MISSING_DRIVE;
  // Operation, spare state, number of the array, status, answer.
  const std::tuple<unsigned int, std::uint32_t, std::int32_t, std::uint32_t, unsigned int> cases[] = {
      {CREATE, 40262, -1, 40099, 0},      {CREATE, 40262, 0, 40099, 20005},
      {CREATE, 40263, -1, 40099, 20005},  {RELEASE, 40263, 3, 40098, 0},
      {RELEASE, 40264, 0, 40095, 0},      {RELEASE, 40262, 3, 40098, 20005},
      {RELEASE, 40263, -1, 40098, 20005}, {RELEASE, 40263, 3, 40093, 20005},
      {REPLACE, 40262, -1, 40099, 20000}, {REPLACE, 40264, -1, 40099, 20117},
      {REPLACE, 40263, -1, 40099, 20118}, {50089, 40262, -1, 40099, 20005}};
  SRig rig(MIRROR);
  CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
  for (const auto& [code, spareState, number, status, answer] : cases) {
    SCOPED_TRACE(testing::Message() << code << " " << spareState << " " << number << " " << status);
    std::tie(drive.m_SpareState, drive.m_IsMemberOf, drive.m_Status) = std::tuple(spareState, number, status);
    rig.m_Plugin.m_LogicalDrives.front().m_Activity = PI::ACTIVITY_RESYNCING;
    EXPECT_EQ(Check(rig.m_Plugin, drive.m_ID, Operation(code)), answer);
    rig.m_Plugin.m_LogicalDrives.front().m_Activity = PI::ACTIVITY_REBUILDING;
    EXPECT_EQ(Check(rig.m_Plugin, drive.m_ID, Operation(code)), PI::ERR_BUSY);
  }
  rig.m_Plugin.m_LogicalDrives.clear();
  EXPECT_EQ(Check(rig.m_Plugin, drive.m_ID, Operation(CREATE)), PI::ERR_NOT_AVAILABLE);
  EXPECT_EQ(Execute(rig.m_Plugin, drive.m_ID, Operation(REPLACE)), PI::ERR_OPERATION_NOT_SUPPORTED);
}

}  // namespace
