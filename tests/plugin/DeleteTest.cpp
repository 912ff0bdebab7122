// Deletion of arrays and the check before it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Arrays.h"
#include "tests/support/NoMemory.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using ECall = CFaultyMachine::ECall;

namespace {

/// A mirror md_d1 of sda and sdb; sdc is free.
const std::string MIRROR =
    DisksOf({300000, 300000, 300000},
            R"("arrays": [{"name": "md_d1", "level": "raid1", "members": ["sda", "sdb"]}])");
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
  const std::string tail = "unused devices: <none>\n";
  const struct {
    const char* m_What;
    std::optional<std::string> m_Text;
    unsigned int m_Status;
  } cases[] = {
      {"version 1.0", head + own + good + tail, 0},
      {"version 0.90", head + own + "      299856 blocks [2/2] [UU]\n      \n" + tail, 20003},
      {"version 1.2", head + own + "      299856 blocks super 1.2 [2/2] [UU]\n      \n" + tail, 20003},
      {"absent", head + tail, 0},
      {"empty", "", 0},
      {"the longer name is of another version",
       head + "md_d10 : active raid1 sdc[0]\n      1 blocks super 1.2 [1/1] [U]\n" + own + good + tail,
       20003},
      {"only the longer name is there", head + "md_d10 : active raid1 sdc[0]\n" + good + tail, 0},
      {"nothing follows", head + own, 20003},
      {"only an end of line follows", head + own + "\n", 20003},
      {"the version ends the line", head + own + "super 1.0\n", 0},
      {"the version ends the file", head + own + "super 1.0",
       20003},  // its last character is taken for the end
      {"the version comes a line late", head + own + "      299856 blocks\n super 1.0\n" + tail, 20003},
      {"the line that is looked at is no name line", head + own + " super 1.0 md_d1\n" + tail, 0},
      {"a line longer than a read",
       head + "md_d1 : active raid1" + std::string(120, ' ') + "sda[0]\n" + good + tail, 20003},
      {"a line as long as a read",  // its end comes as a piece of its own
       head + "md_d1 :" + std::string(120, ' ') + "\n" + good + tail, 20003},
      {"a line that just fits", head + "md_d1 :" + std::string(119, ' ') + "\n" + good + tail, 0},
      {"no file", std::nullopt, 20003}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SRig rig(MIRROR);
    rig.m_Machine.SetFile("/proc/mdstat", entry.m_Text);
    unsigned int reason = 22003;
    EXPECT_EQ(rig.m_Plugin.DeleteLogicalDriveAllowed(rig.m_Plugin.Array("md_d1"), &reason), entry.m_Status);
    EXPECT_EQ(reason, 22003U);
    EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
  }
  SRig rig(MIRROR);
  rig.m_Door.FailAt(ECall::Read, 1, EIO);
  EXPECT_EQ(Check(rig.m_Plugin, rig.m_Plugin.Array("md_d1").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            20003U)
      << "a file that cannot be read allows nothing";
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

struct SPartitionRig {
  explicit SPartitionRig(const std::string& description) : m_Machine(description) {
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
  }
  /// What a check leaves in the operation.
  std::pair<unsigned int, unsigned int> Confirmation(unsigned long id, unsigned int code,
                                                     unsigned int preset) {
    PI::COperation operation = Operation(code);
    operation.m_ConfirmationCode = preset;
    const unsigned int status = m_Plugin.Execute(PI::CMD_CHECK_OPERATION, id, &operation);
    return {status, operation.m_ConfirmationCode};
  }
  std::pair<unsigned int, unsigned int> OfLast() {
    return Confirmation(m_Plugin.m_Adapter.m_ID, PI::OP_DELETE_LAST_LOGICAL_DRIVE, 1);
  }
  std::pair<unsigned int, unsigned int> OfAll() {
    return Confirmation(m_Plugin.m_Adapter.m_ID, PI::OP_DELETE_ALL_LOGICAL_DRIVES, 1);
  }

  CConfigFolder m_Config;
  CSimulatedMachine m_Machine;
  CPartitionDoor m_Door{m_Machine};
  CTestInstance m_Plugin{m_Door};
};

using TAnswer = std::pair<unsigned int, unsigned int>;
const KVTX::CPartition FREE{"/dev/p1", "", ""};
const KVTX::CPartition MOUNTED{"/dev/p2", "", "/srv"};
const KVTX::CPartition LETTER{"/dev/p3", "D", ""};
const KVTX::CPartition BOTH{"/dev/p4", "E", "/home"};

TEST(DeletionCheck, WarnsOfTheFirstPartitionInUse) {
  const struct {
    std::vector<KVTX::CPartition> m_Partitions;
    unsigned int m_OfLast;
    unsigned int m_OfAll;
    unsigned int m_OfArray;  ///< neither preset nor translated
  } cases[] = {{{}, 22003, 22005, 22000},
               {{FREE, FREE}, 22003, 22005, 22000},
               {{FREE, MOUNTED}, 22077, 22077, 22075},
               {{LETTER}, 22076, 22076, 22074},
               {{BOTH}, 22076, 22076, 22074},
               {{MOUNTED, LETTER}, 22077, 22077, 22075},
               {{LETTER, MOUNTED}, 22076, 22076, 22074}};
  for (const auto& entry : cases) {
    SPartitionRig rig(MIRROR);
    rig.m_Door.m_Partitions["/dev/md_d1"] = entry.m_Partitions;
    EXPECT_EQ(rig.OfLast(), TAnswer(0, entry.m_OfLast));
    EXPECT_EQ(rig.OfAll(), TAnswer(0, entry.m_OfAll));
    EXPECT_EQ(rig.Confirmation(rig.m_Plugin.Array("md_d1").m_ID, PI::OP_DELETE_LOGICAL_DRIVE, 22000),
              TAnswer(0, entry.m_OfArray));
  }
}

TEST(DeletionCheck, OfSeveralArraysTheFirstWarningWinsAndTheFirstRefusalStops) {
  SPartitionRig rig(MIRRORS);
  rig.m_Door.m_Partitions["/dev/md_d1"] = {MOUNTED};
  rig.m_Door.m_Partitions["/dev/md_d2"] = {LETTER};
  EXPECT_EQ(rig.OfAll(), TAnswer(0, 22077));
  EXPECT_EQ(rig.OfLast(), TAnswer(0, 22076));
  auto& arrays = rig.m_Plugin.m_LogicalDrives;
  std::swap(rig.m_Door.m_Partitions["/dev/md_d1"], rig.m_Door.m_Partitions["/dev/md_d2"]);
  EXPECT_EQ(rig.OfAll(), TAnswer(0, 22076));
  arrays[2].m_Activity = PI::ACTIVITY_REBUILDING;
  EXPECT_EQ(rig.OfAll(), TAnswer(20020, 22076)) << "the code so far is stored";
  EXPECT_EQ(rig.OfLast(), TAnswer(20020, 1)) << "and here it is not touched";
  arrays[0].m_Activity = PI::ACTIVITY_REBUILDING;
  EXPECT_EQ(rig.OfAll(), TAnswer(20020, 22005));
  for (auto& array : arrays) array.m_Activity = PI::ACTIVITY_RESYNCING;
  EXPECT_EQ(rig.OfAll(), TAnswer(0, 22076)) << "a resync does not block";
  rig.m_Plugin.m_PendingOperation = 3;
  EXPECT_EQ(rig.OfAll(), TAnswer(20020, 22005));
  EXPECT_EQ(rig.OfLast(), TAnswer(20020, 1));
  rig.m_Plugin.m_PendingOperation = 0xFFFFFFFF;
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
    bool m_Locks;
    bool m_Private;
  } cases[] = {{PI::OP_DELETE_LOGICAL_DRIVE, {"md_d1"}, {"/dev/sdc", "/dev/sdd"}, true, false, false},
               {PI::OP_DELETE_LAST_LOGICAL_DRIVE, {"md_d2"}, {"/dev/sde", "/dev/sdf"}, true, true, true},
               {PI::OP_DELETE_ALL_LOGICAL_DRIVES,
                {"md_d0", "md_d1", "md_d2"},
                {"/dev/sda", "/dev/sdb", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf"},
                false,
                true,
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
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), entry.m_Private);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, entry.m_Locks);
    EXPECT_EQ(rig.m_Config.Read(), "PollInterval=5\n");
    EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
    rig.Pass();
    EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), 3 - entry.m_Gone.size());
    EXPECT_EQ(
        Create(rig.m_Plugin, PI::LEVEL_RAID1, 0,
               ofArray ? std::vector<std::string>{"sdc", "sdd"} : std::vector<std::string>{"sde", "sdf"}),
        PI::OK)
        << "the disks are free again";
  }
}

TEST(Deletion, TheLastWriteCounts) {
  const struct {
    const char* m_What;
    std::uint64_t m_FailingWrite;
    int m_StopError;
    bool m_NoMemory;
    bool m_NoMembers;
    unsigned int m_Status;
    bool m_Stopped;
  } cases[] = {{"the first write fails", 1, 0, false, false, 0, true},
               {"the last write fails", 2, 0, false, false, 20018, true},
               {"md does not stop it", 0, EBUSY, false, false, 20003, false},
               {"no memory", 0, 0, true, false, 20003, true},
               {"no member is known", 0, 0, false, true, 20003, true}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    SMdRig rig(MIRROR);
    if (entry.m_FailingWrite != 0) rig.m_Door.FailAt(ECall::Write, entry.m_FailingWrite, EIO);
    if (entry.m_StopError != 0) rig.m_Md.m_Answers[STOP_ARRAY] = entry.m_StopError;
    if (entry.m_NoMembers)
      for (auto& drive : rig.m_Plugin.m_PhysicalDrives) drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
    {
      const std::unique_ptr<CNoMemory> noMemory(entry.m_NoMemory ? new CNoMemory : nullptr);
      EXPECT_EQ(
          Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_DELETE_LAST_LOGICAL_DRIVE)),
          entry.m_Status);
    }
    EXPECT_EQ(rig.m_Door.OpenedForWriting().empty(),
              !entry.m_Stopped || entry.m_NoMemory || entry.m_NoMembers);
    EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), true) << "after every attempt";
    EXPECT_EQ(Take(rig.m_Plugin.m_ForceWorker), entry.m_Status == 0);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, entry.m_Status == 0);
    if (entry.m_Stopped)
      EXPECT_THROW(ArrayInfo(rig.m_Machine, "md_d1"), std::out_of_range);
    else
      EXPECT_EQ(ArrayInfo(rig.m_Machine, "md_d1").raid_disks, 2);
    EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
  }
  SRig rig(MIRROR);  // a mounted array: md itself refuses
  rig.m_Machine.Apply(R"({"mount": {"device": "md_d1", "at": "/srv"}})");
  EXPECT_EQ(Execute(rig.m_Plugin, rig.m_Plugin.Array("md_d1").m_ID, Operation(PI::OP_DELETE_LOGICAL_DRIVE)),
            20003U);
  EXPECT_THAT(rig.m_Door.OpenedForWriting(), IsEmpty());
}

TEST(Deletion, BusyArraysStayAndOfAllTheLastOneCounts) {
  const unsigned long pending = 5;
  const struct {
    const char* m_What;
    std::vector<std::size_t> m_Rebuilding;
    bool m_Pending;
    unsigned int m_OfAll;
    std::size_t m_Left;  ///< after the deletion of all
    unsigned int m_OfLast;
    unsigned int m_OfSecond;
  } cases[] = {{"none", {}, false, 0, 0, 0, 0},
               {"the second", {1}, false, 0, 1, 0, 20020},
               {"the third", {2}, false, 20020, 1, 20020, 0},
               {"all", {0, 1, 2}, false, 20020, 3, 20020, 20020},
               {"a pending operation, which does not keep the last", {}, true, 20020, 3, 0, 20020}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_What);
    for (const unsigned int code :
         {PI::OP_DELETE_ALL_LOGICAL_DRIVES, PI::OP_DELETE_LAST_LOGICAL_DRIVE, PI::OP_DELETE_LOGICAL_DRIVE}) {
      SRig rig(MIRRORS);
      for (const std::size_t at : entry.m_Rebuilding)
        rig.m_Plugin.m_LogicalDrives[at].m_Activity = PI::ACTIVITY_REBUILDING;
      if (entry.m_Pending) rig.m_Plugin.m_PendingOperation = pending;
      const bool all = code == PI::OP_DELETE_ALL_LOGICAL_DRIVES;
      const bool last = code == PI::OP_DELETE_LAST_LOGICAL_DRIVE;
      const unsigned int expected = all ? entry.m_OfAll : last ? entry.m_OfLast : entry.m_OfSecond;
      const std::size_t left = all ? entry.m_Left : expected == 0 ? 2 : 3;
      EXPECT_EQ(Execute(rig.m_Plugin,
                        all || last ? rig.m_Plugin.m_Adapter.m_ID : rig.m_Plugin.m_LogicalDrives[1].m_ID,
                        Operation(code)),
                expected);
      EXPECT_EQ(rig.m_Door.OpenedForWriting().size(), 2 * (3 - left));
      EXPECT_EQ(Take(rig.m_Plugin.m_PrivateEvent), all || (last && expected == 0)) << code;
      EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, left != 3 && (all || last)) << code;
      rig.Pass();
      EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), left);
    }
  }
  SRig rig(DisksOf({300000}));
  const unsigned long id = rig.m_Plugin.m_Adapter.m_ID;
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_DELETE_ALL_LOGICAL_DRIVES)), PI::OK);
  EXPECT_EQ(Execute(rig.m_Plugin, id, Operation(PI::OP_DELETE_LAST_LOGICAL_DRIVE)), PI::ERR_NOT_AVAILABLE);
  EXPECT_FALSE(Take(rig.m_Plugin.m_PrivateEvent));
}

}  // namespace
