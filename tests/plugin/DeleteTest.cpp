// Deletion of arrays and the check before it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

/// A mirror md_d1 of sda and sdb; sdc is free.
const std::string MIRROR = DisksOf({300000, 300000, 300000}, MirrorOfTwo("md_d1"));
/// Three mirrors and a free disk.
const std::string MIRRORS =
    DisksOf({300000, 300000, 300000, 300000, 300000, 300000, 300000},
            R"("arrays": [{"name": "md_d0", "level": "raid1", "members": ["sda", "sdb"]},
                          {"name": "md_d1", "level": "raid1", "members": ["sdc", "sdd"]},
                          {"name": "md_d2", "level": "raid1", "members": ["sde", "sdf"]}])");

TEST(DeletionCheck, OnlyMetadata10MayGo) {
  const std::string head = "Personalities : [raid1]\n";
  const std::string own = "md_d1 : active raid1 sdb[1] sda[0]\n";
  const std::string good = "      299856 blocks super 1.0 [2/2] [UU]\n      \n";
  const struct {
    const char* m_What;
    std::optional<std::string> m_Text;
    unsigned int m_Status;
  } cases[] = {
      {"version 1.0", head + own + good, 0},
      {"version 0.90", head + own + "      299856 blocks [2/2] [UU]\n      \n", 20003},
      {"the longer name is of another version",
       head + "md_d10 : active raid1 sdc[0]\n      1 blocks super 1.2 [1/1] [U]\n" + own + good, 20003},
      {"nothing follows", head + own, 20003},
      {"the version ends the file, whose last character is taken for the end of the line",
       head + own + "super 1.0", 20003},
      {"the end of a line as long as a read comes as a piece of its own",
       head + "md_d1 :" + std::string(120, ' ') + "\n" + good, 20003},
      {"no file", std::nullopt, 20003}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(MIRROR);
    rig.m_Machine.SetFile("/proc/mdstat", entry.m_Text);
    unsigned int reason = 22003;
    EXPECT_EQ(rig.m_Plugin.DeleteLogicalDriveAllowed(rig.m_Plugin.Array("md_d1"), &reason), entry.m_Status);
    EXPECT_EQ(reason, 22003U);
  }
}

/// Tells which partitions are on the arrays.
class CPartitionDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  std::vector<KVTX::CPartition> GetPartitions(const std::string& device) override {
    return m_Partitions[device];
  }
  std::map<std::string, std::vector<KVTX::CPartition>> m_Partitions;
};

struct SPartitionRig : public SRigOf<CPartitionDoor> {
  using SRigOf::SRigOf;
  /// The status of a check and the code that it leaves in the operation.
  std::pair<unsigned int, unsigned int> Confirmation(unsigned long id, unsigned int code) {
    PI::COperation operation = Operation(code);
    operation.m_ConfirmationCode = 1;
    const unsigned int status = m_Plugin.Execute(PI::CMD_CHECK_OPERATION, id, &operation);
    return {status, operation.m_ConfirmationCode};
  }
  auto OfLast() { return Confirmation(m_Plugin.m_Adapter.m_ID, PI::OP_DELETE_LAST_LOGICAL_DRIVE); }
  auto OfAll() { return Confirmation(m_Plugin.m_Adapter.m_ID, PI::OP_DELETE_ALL_LOGICAL_DRIVES); }
};

using TAnswer = std::pair<unsigned int, unsigned int>;
const KVTX::CPartition FREE{"/dev/p1", "", ""};
const KVTX::CPartition MOUNTED{"/dev/p2", "", "/srv"};
const KVTX::CPartition LETTER{"/dev/p3", "D", ""};

TEST(DeletionCheck, TheFirstWarningWinsAndTheFirstRefusalStops) {
  SPartitionRig rig(MIRRORS);
  EXPECT_EQ(rig.OfAll(), TAnswer(0, 22005));
  EXPECT_EQ(rig.OfLast(), TAnswer(0, 22003));
  rig.m_Own.m_Partitions["/dev/md_d1"] = {FREE, MOUNTED, LETTER};
  rig.m_Own.m_Partitions["/dev/md_d2"] = {LETTER, MOUNTED};
  EXPECT_EQ(rig.Confirmation(rig.m_Plugin.Array("md_d1").m_ID, PI::OP_DELETE_LOGICAL_DRIVE),
            TAnswer(0, 22075))
      << "neither preset nor translated";
  EXPECT_EQ(rig.OfAll(), TAnswer(0, 22077));
  EXPECT_EQ(rig.OfLast(), TAnswer(0, 22076));
  auto& arrays = rig.m_Plugin.m_LogicalDrives;
  arrays[2].m_Activity = PI::ACTIVITY_REBUILDING;
  EXPECT_EQ(rig.OfAll(), TAnswer(20020, 22077)) << "the code so far is stored";
  EXPECT_EQ(rig.OfLast(), TAnswer(20020, 1)) << "and here it is not touched";
  for (auto& array : arrays) array.m_Activity = PI::ACTIVITY_RESYNCING;
  EXPECT_EQ(rig.OfAll(), TAnswer(0, 22077)) << "a resync does not block";
  rig.m_Plugin.m_PendingOperation = 3;
  EXPECT_EQ(rig.OfAll(), TAnswer(20020, 22005));
  arrays.clear();
  EXPECT_EQ(rig.OfAll(), TAnswer(20049, 1));
  EXPECT_EQ(rig.OfLast(), TAnswer(20049, 1));
}

TEST(Deletion, StopsTheArrayAndWipesItsMembersAndNothingElse) {
  const struct {
    unsigned int m_Code;
    std::vector<std::string> m_Gone;
    std::vector<std::string> m_Written;
    bool m_Forces;
    bool m_Locks;  ///< and notifies
  } cases[] = {{PI::OP_DELETE_LOGICAL_DRIVE, {"md_d1"}, {"/dev/sdc", "/dev/sdd"}, true, false},
               {PI::OP_DELETE_LAST_LOGICAL_DRIVE, {"md_d2"}, {"/dev/sde", "/dev/sdf"}, true, true},
               {PI::OP_DELETE_ALL_LOGICAL_DRIVES,
                {"md_d0", "md_d1", "md_d2"},
                {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf"},
                false,
                true}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_Code);
    SRig rig(MIRRORS);
    rig.m_Config.Write("PollInterval=5\n");
    const bool ofArray = entry.m_Code == PI::OP_DELETE_LOGICAL_DRIVE;
    const unsigned long id = ofArray ? rig.m_Plugin.Array("md_d1").m_ID : rig.m_Plugin.m_Adapter.m_ID;
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(entry.m_Code)), PI::OK);
    EXPECT_EQ(rig.m_Door.OpenedForWriting(), entry.m_Written);
    for (const CRVXPhysicalDrive& drive : rig.m_Plugin.m_PhysicalDrives) {
      const bool wiped = std::count(entry.m_Written.begin(), entry.m_Written.end(), drive.DevicePath()) != 0;
      const bool isMember = !wiped && drive.m_IsMemberOf >= 0;
      const md_superblock1 record = SuperBlockOf(rig.m_Machine, drive);
      EXPECT_EQ(IsSuperBlock(record), isMember) << drive.m_KernelName;
      EXPECT_EQ(record.magic == 0, !isMember) << drive.m_KernelName;
    }
    for (const std::string& name : entry.m_Gone)
      EXPECT_THROW(ArrayInfo(rig.m_Machine, name), std::out_of_range);
    EXPECT_EQ(Take(rig.m_Plugin.m_ForceWorker), entry.m_Forces);
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), entry.m_Locks);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, entry.m_Locks);
    EXPECT_EQ(rig.m_Config.Read(), "PollInterval=5\n");
    rig.Pass();
    EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), 3 - entry.m_Gone.size());
  }
}

TEST(Deletion, TheLastWriteCounts) {
  const struct {
    const char* m_What;
    std::uint64_t m_FailingWrite;
    bool m_NoMembers;
    unsigned int m_Status;
  } cases[] = {{"the first write fails", 1, false, 0},
               {"the last write fails", 2, false, 20018},
               {"no member is known", 0, true, 20003}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(MIRROR);
    if (entry.m_FailingWrite != 0) rig.m_Door.FailAt(ECall::Write, entry.m_FailingWrite, EIO);
    if (entry.m_NoMembers)
      for (auto& drive : rig.m_Plugin.m_PhysicalDrives) drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
    EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_DELETE_LAST_LOGICAL_DRIVE)),
              entry.m_Status);
    EXPECT_TRUE(Take(rig.m_Plugin.m_PrivateEvent)) << "after every attempt";
    EXPECT_EQ(Take(rig.m_Plugin.m_ForceWorker), entry.m_Status == 0);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, entry.m_Status == 0);
    EXPECT_THROW(ArrayInfo(rig.m_Machine, "md_d1"), std::out_of_range);
  }
  SRig rig(MIRROR);  // a mounted array: md itself refuses
  rig.m_Machine.Apply(R"({"mount": {"device": "md_d1", "at": "/srv"}})");
  EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d1").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            20003U);
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
}

TEST(Deletion, BusyArraysStayAndOfAllTheLastOneCounts) {
  const unsigned int ALL = PI::OP_DELETE_ALL_LOGICAL_DRIVES;
  const unsigned int LAST = PI::OP_DELETE_LAST_LOGICAL_DRIVE;
  const unsigned int SECOND = PI::OP_DELETE_LOGICAL_DRIVE;
  const struct {
    unsigned int m_Code;
    std::vector<std::size_t> m_Rebuilding;
    bool m_Pending;
    unsigned int m_Status;
    std::size_t m_Left;
  } cases[] = {{ALL, {1}, false, 0, 1},        {ALL, {2}, false, 20020, 1}, {ALL, {0, 1, 2}, false, 20020, 3},
               {ALL, {}, true, 20020, 3},      {LAST, {1}, false, 0, 2},    {LAST, {2}, false, 20020, 3},
               {LAST, {}, true, 0, 2},  // a pending operation does not keep the last
               {SECOND, {1}, false, 20020, 3}, {SECOND, {2}, false, 0, 2},  {SECOND, {}, true, 20020, 3}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(testing::Message() << &entry - cases);
    SRig rig(MIRRORS);
    auto& arrays = rig.m_Plugin.m_LogicalDrives;
    for (const std::size_t at : entry.m_Rebuilding) arrays[at].m_Activity = PI::ACTIVITY_REBUILDING;
    if (entry.m_Pending) rig.m_Plugin.m_PendingOperation = 5;
    const bool ofArray = entry.m_Code == SECOND;
    const unsigned long id = ofArray ? arrays[1].m_ID : rig.m_Plugin.m_Adapter.m_ID;
    EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(entry.m_Code)), entry.m_Status);
    EXPECT_EQ(rig.m_Door.OpenedForWriting().size(), 2 * (3 - entry.m_Left));
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent),
              entry.m_Code == ALL || (entry.m_Code == LAST && entry.m_Status == 0));
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, entry.m_Left != 3 && !ofArray);
    rig.Pass();
    EXPECT_EQ(arrays.size(), entry.m_Left);
  }
  SRig rig(DisksOf({300000}));
  const unsigned long id = rig.m_Plugin.m_Adapter.m_ID;
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(ALL)), PI::OK);
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(LAST)), PI::ERR_NOT_AVAILABLE);
  EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
}

}  // namespace
