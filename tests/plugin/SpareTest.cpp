// Dedicated hot spares and rebuilds: which members they find, and when they are allowed.

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
    const CTraceCapture trace(TRACE_INFORMATION);
    EXPECT_EQ(missing ? rig.m_Plugin.CreateMissingDrive(drive, 3) : Make(rig.m_Plugin, "sdc"), PI::OK);
    EXPECT_EQ(trace.Shows("Src/piRVXPhysicalDrive", "CreateMissingDrive() add spare disk to slot 2"),
              missing);
    EXPECT_EQ(Model(rig.m_Plugin, drive), "1: 40098 40263 0 of 3, busy 1; 1: busy 0");
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), !missing) << "set by the operation";
    EXPECT_THAT(rig.m_System.OpenedForWriting(), ElementsAre("/dev/sdc"));
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
  // A disk that is too small; and a mirror without chunks: whole chunks of nothing are no room for data.
  for (const auto& [disk, chunk] : {std::pair{"sdd", 64}, {"sdc", 0}}) {
    SCOPED_TRACE(disk);
    SRig rig(DisksOf({300000, 300000, 300000, 200000}, MirrorOfTwo("md_d3", Text(R"("chunk": %d)", chunk))));
    CRVXPhysicalDrive& drive = rig.m_Plugin.Drive(disk);
    const auto before = Model(rig.m_Plugin, drive);
    EXPECT_EQ(Make(rig.m_Plugin, disk), PI::ERR_DEVICE_IO);
    EXPECT_EQ(Model(rig.m_Plugin, drive), before);
    EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
    EXPECT_THAT(rig.m_System.OpenedForWriting(), ElementsAre(drive.DevicePath(), drive.DevicePath()));
    const Md::md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
    EXPECT_EQ(record.magic, 0U);
    EXPECT_EQ(record.max_dev, 0U);
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
  EXPECT_EQ(Release(rig.m_Plugin, "sdd"), PI::ERR_NOT_AVAILABLE) << "a free disk is no spare";
  EXPECT_THAT(rig.m_System.OpenedForWriting(), IsEmpty());
  EXPECT_EQ(Make(rig.m_Plugin, "sdc", 0x100000003), PI::OK) << "read as 64 bits, used as 32";
}

/// What an operation answers, how often it opens disks for writing, and what it asks of md. The rebuild goes
/// to a kernel that takes what this one refuses, the release to one that does not let go.
std::string Outcome(unsigned int code, const std::vector<mdu_disk_info_t>& disks, int count) {
  SMdRig rig(MIRROR);
  const bool release = code == PI::OP_DELETE_DEDICATED_HOTSPARE;
  const bool spare = release || code == PI::OP_CREATE_DEDICATED_HOTSPARE;
  const CRVXPhysicalDrive& drive = rig.m_Plugin.Drive("sdc");
  if (release) {
    EXPECT_EQ(Make(rig.m_Plugin, "sdc"), PI::OK);
    rig.m_Machine.Apply(R"({"remove_member": {"array": "md_d3", "disk": "sdc"}})");
  }
  const std::size_t writes = rig.m_System.OpenedForWriting().size();
  rig.m_Own.m_Changes.clear();
  for (const mdu_disk_info_t& disk : disks) rig.m_Own.m_Disks[disk.number] = disk;
  rig.m_Own.m_Array = [count](mdu_array_info_t& info) { info.raid_disks = count; };
  rig.m_Own.m_Answers = {{HOT_REMOVE_DISK, release ? EBUSY : 0}, {SET_DISK_FAULTY, 0}, {ADD_NEW_DISK, 0}};
  const unsigned long id = spare ? drive.m_ID : rig.m_Plugin.Array("md_d3").m_ID;
  std::string text = Text("%d", Execute(rig.m_Plugin, id, Operation(code, 3)));
  for (const std::string& change : rig.m_Own.m_Changes) text += ", " + change;
  if (!spare) return text + "\n";
  const Md::md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
  return text + Text("; written %d times; sdc is %d, %s superblock, number %d, role %d\n",
                     rig.m_System.OpenedForWriting().size() - writes, drive.m_Status,
                     IsSuperBlock(record) ? "a" : "no", record.dev_number,
                     record.dev_roles[record.dev_number]);
}

TEST(Members, AsMdTellsOfThemDecideWhatOperationsDo) {
  std::vector<mdu_disk_info_t> full;
  for (int number = 0; number < 384; ++number) full.push_back({number, 8, 16, 1, 6});
  // How many md counts, and what it tells of each: number, major, minor, slot and state.
  const std::tuple<const char*, int, std::vector<mdu_disk_info_t>> lists[] = {
      {"a faulty member", 2, {{0, 8, 0, 0, 6}, {1, 8, 16, 1, 1}}},
      {"a faulty spare", 2, {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 1}}},
      {"a removed one", 2, {{0, 8, 0, 0, 6}, {1, 8, 16, -1, 8}}},
      {"a removed one with a slot", 2, {{0, 8, 0, 0, 8}, {1, 8, 16, 1, 6}}},
      {"a member without a slot", 2, {{0, 8, 0, -1, 6}}},
      {"every number in use", 2, full},
      {"the disk is a spare", 2, {{0, 8, 0, 0, 6}, {2, 8, 32, -1, 0}}},
      {"the disk is a member", 2, {{0, 8, 32, 0, 6}}},
      {"a number too far faulty", 2, {{384, 8, 16, 0, 1}}}};
  std::string text;
  for (const auto& [what, count, disks] : lists) {
    text += Text("%s\n", what);
    for (const auto& [name, code] : {std::pair("make", PI::OP_CREATE_DEDICATED_HOTSPARE),
                                     {"release", PI::OP_DELETE_DEDICATED_HOTSPARE},
                                     {"start", PI::OP_START_REBUILD},
                                     {"cancel", PI::OP_CANCEL_REBUILD}})
      text += Text("  %s: %s", name, Outcome(code, disks, count));
    SMdRig rig(MIRROR);
    for (const mdu_disk_info_t& disk : disks) rig.m_Own.m_Disks[disk.number] = disk;
    int rebuilding = -1;
    int needing = -1;
    const unsigned int first = rig.m_Plugin.FindRebuildingPhysicalDrive(3, rebuilding);
    const unsigned int second = rig.m_Plugin.FindPhysicalDriveForRebuild(3, needing);
    text += Text("  rebuilding %d: %d, to be rebuilt %d: %d\n", first, rebuilding, second, needing);
  }
  ExpectGolden("members.txt", text);
}

TEST(SpareCheck, AllowsWhatTheModelAllows) {
  // Operation (50036 makes one, 50038 releases it, 50073 replaces a drive), spare state, number of the array,
  // status, answer.
  const std::tuple<unsigned int, std::uint32_t, std::int32_t, std::uint32_t, unsigned int> cases[] = {
      {50036, 40262, -1, 40099, 0},     {50036, 40262, 0, 40099, 20005},  {50036, 40263, -1, 40099, 20005},
      {50038, 40263, 3, 40098, 0},      {50038, 40264, 0, 40095, 0},      {50038, 40262, 3, 40098, 20005},
      {50038, 40263, -1, 40098, 20005}, {50038, 40263, 3, 40093, 20005},  {50073, 40262, -1, 40099, 20000},
      {50073, 40264, -1, 40099, 20117}, {50073, 40263, -1, 40099, 20118}, {50089, 40262, -1, 40099, 20005}};
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
  EXPECT_EQ(Check(rig.m_Plugin, drive.m_ID, Operation(50036)), PI::ERR_NOT_AVAILABLE);
  EXPECT_EQ(Execute(rig.m_Plugin, drive.m_ID, Operation(50073)), PI::ERR_OPERATION_NOT_SUPPORTED);
}

TEST(Rebuild, IsAllowedWhereThereIsSomethingToRebuild) {
  const std::array<unsigned int, 5> cases[] = {
      // level, activity, status; answers to start and cancellation
      {40009, 40102, 40094, 0, 20025},     {40014, 40102, 40095, 0, 20025},
      {40009, 40102, 40093, 20024, 20025}, {40009, 40103, 40094, 20020, 20025},
      {40009, 40096, 40094, 20020, 0},     {40007, 40102, 40094, 20023, 20025},
      {40021, 40096, 40095, 20023, 0}};
  SRig rig(MIRROR);
  CRVXLogicalDrive& array = rig.m_Plugin.Array("md_d3");
  for (const auto& [level, activity, status, start, cancel] : cases) {
    SCOPED_TRACE(testing::Message() << level << " " << activity << " " << status);
    std::tie(array.m_RaidLevel, array.m_Activity, array.m_Status) = std::tuple(level, activity, status);
    PI::COperation operation = Operation(PI::OP_START_REBUILD);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_CHECK_OPERATION, array.m_ID, &operation), start);
    EXPECT_EQ(operation.m_ConfirmationCode, start == 0 ? 1U : 0U);
    EXPECT_EQ(operation.m_Attributes[5], start == 0 ? 1U : 0U);
    EXPECT_EQ(Check(rig.m_Plugin, array.m_ID, Operation(PI::OP_CANCEL_REBUILD)), cancel);
  }
}

}  // namespace
