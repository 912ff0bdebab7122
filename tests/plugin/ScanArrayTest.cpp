// The scan's array pass.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "Src/piRVXTrace.h"
#include "simulator/ForwardingMachine.h"
#include "tests/support/Scan.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Four managed disks, one that is not, and a mirror of the first two with the third as its spare.
constexpr char MIRROR[] = R"({
  "controllers": [
    {"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"},
    {"name": "usb", "pci": "0000:00:14.0", "vendor": "0x8086", "driver": "xhci_hcd"}
  ],
  "disks": [
    {"name": "sda", "controller": "sas", "size": 1000000},
    {"name": "sdb", "controller": "sas", "size": 1000004},
    {"name": "sdc", "controller": "sas", "size": 1000016},
    {"name": "sdd", "controller": "sas", "size": 1000064},
    {"name": "sde", "controller": "usb", "size": 1000128}
  ],
  "arrays": [{"name": "md0", "level": "raid1", "members": ["sda", "sdb"], "spares": ["sdc"]}]
})";

/// md's answers, changed as a test wants them.
class CMdDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  std::function<void(mdu_array_info_s&)> m_Array;
  std::map<int, std::pair<int, int>> m_Members;  ///< state and raid_disk by disk number
  /// What the readings of an array's record find, a letter each: clean, dirty, failing. Then as it is.
  std::string m_Readings;
  std::uint64_t m_Slept{0};

  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    const int result = CForwardingMachine::Ioctl(descriptor, request, argument);
    if (result < 0) return result;
    if (request == GET_ARRAY_INFO) return ArrayInfo(*static_cast<mdu_array_info_s*>(argument));
    if (request == GET_DISK_INFO) {
      auto& disk = *static_cast<mdu_disk_info_s*>(argument);
      if (const auto own = m_Members.find(disk.number); own != m_Members.end())
        std::tie(disk.state, disk.raid_disk) = own->second;
    }
    return result;
  }
  void Sleep(std::uint64_t milliseconds) override { m_Slept += milliseconds; }

 private:
  int ArrayInfo(mdu_array_info_s& info) {
    if (m_Array) m_Array(info);
    if (m_Readings.empty()) return 0;
    const char reading = m_Readings.front();
    m_Readings.erase(0, 1);
    if (reading == 'f') {
      errno = EIO;
      return -1;
    }
    info.state = reading == 'c' ? 1 : 0;
    return 0;
  }
};

struct SArrayRig {
  SArrayRig() {
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
    m_Plugin.TakeEvents();
  }
  /// The queued events: codes, and severities where they are not the default.
  std::string Events() {
    std::string text;
    for (const PI::CEvent& event : m_Plugin.TakeEvents()) {
      text += std::to_string(event.m_Code) + " ";
      if (event.m_Severity != PI::SEV_DEFAULT)
        text.back() = '/', text += std::to_string(event.m_Severity) + " ";
    }
    return text;
  }
  void SetMdstat(const std::string& bar, const std::string& name = "md0") {
    m_Machine.SetFile("/proc/mdstat",
                      "Personalities : [raid1] \n" + name +
                          " : active raid1 sdb[1] sda[0]\n      1000 blocks super 1.0 [2/2] [UU]\n" + bar +
                          "\n      \nunused devices: <none>\n");
  }

  CConfigFolder m_Config;
  CSimulatedMachine m_Machine{MIRROR};
  CMdDoor m_Door{m_Machine};
  CTestInstance m_Plugin{m_Door};
};

struct ScanArrays : public testing::Test, public SArrayRig {};

TEST_F(ScanArrays, ListsTheMembersInMdsOrderWithTheirStates) {
  SScanned scan(m_Plugin);
  const CRVXLogicalDrive& array = scan.Array("md0");
  EXPECT_EQ(array.m_Kind, PI::OBJ_LOGICAL_DRIVE);
  EXPECT_EQ(array.m_ArrayNumber, 0U);
  EXPECT_EQ(array.m_DeviceKey, "SoftRAID0&BLKDEV:Major=9&Minor=0");
  EXPECT_EQ(array.m_RaidLevel, PI::LEVEL_RAID1);
  EXPECT_EQ(array.m_LogicalSize, 1000000U + 1000004U + 1000016U) << "spares count too";
  EXPECT_GT(array.m_PhysicalSize, 999000U);
  EXPECT_LT(array.m_PhysicalSize, 1000000U);
  EXPECT_THAT(array.m_Children,
              ElementsAre(scan.Drive("sda").m_ID, scan.Drive("sdb").m_ID, scan.Drive("sdc").m_ID));
  for (const auto& [name, status, member] :
       {std::tuple{"sda", PI::STATUS_OK, 0}, {"sdc", PI::STATUS_SPARE, 0}, {"sdd", PI::STATUS_READY, -1}}) {
    EXPECT_EQ(scan.Drive(name).m_Status, status) << name;
    EXPECT_EQ(scan.Drive(name).m_IsMemberOf, member) << name;
  }
  EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
}

TEST_F(ScanArrays, LevelsAndChunksHaveTheirChoices) {
  const std::pair<int, unsigned int> levels[] = {{0, 40007}, {1, 40009},  {10, 40018}, {4, 40013}, {5, 40014},
                                                 {6, 40017}, {-1, 40021}, {-4, 40021}, {7, 40021}};
  for (const auto& [level, choice] : levels) {
    m_Door.m_Array = [level = level](mdu_array_info_s& info) { info.level = level; };
    EXPECT_EQ(SScanned(m_Plugin).Array("md0").m_RaidLevel, choice) << level;
  }
  const std::pair<int, unsigned int> chunks[] = {{4096, 40049},   {8192, 40050},  {16384, 40051},
                                                 {32768, 40052},  {65536, 40053}, {131072, 40054},
                                                 {262144, 40053}, {0, 40053},     {-4096, 40053}};
  for (const auto& [chunk, choice] : chunks) {
    m_Door.m_Array = [chunk = chunk](mdu_array_info_s& info) { info.chunk_size = chunk; };
    EXPECT_EQ(SScanned(m_Plugin).Array("md0").m_StripeSize, choice) << chunk;
  }
}

TEST_F(ScanArrays, AMembersStatusFollowsFromMdsBits) {
  const struct {
    int m_State, m_RaidDisk;
    std::uint32_t m_Status, m_Activity;
  } cases[] = {
      {6, 0, 40093, 40102},                              // active, in sync
      {6 | 512, 0, 40093, 40102},                        // write-mostly beside it
      {2, 0, 40096, 40096},                              // active alone
      {1, -1, 40095, 40102},      {7, 0, 40095, 40102},  // faulty wins
      {0, 1, 40096, 40096},       {0, -1, 40098, 40102},
      {4, 0, 40093, 40102},       {8, -1, 40093, 40102},  // anything else: as the disk pass left it
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_State);
    m_Door.m_Members = {{0, {entry.m_State, entry.m_RaidDisk}}};
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Drive("sda").m_Status, entry.m_Status);
    EXPECT_EQ(scan.Drive("sda").m_Activity, entry.m_Activity);
    EXPECT_EQ(scan.Array("md0").m_Children.size(), 3U);
    EXPECT_EQ(m_Plugin.Drive("sda").m_Status, PI::STATUS_OK) << "the model is not the scan's to change";
  }
}

TEST_F(ScanArrays, MdGetsFiveChancesToBecomeClean) {
  const struct {
    const char* m_Readings;
    std::uint64_t m_Slept;
    bool m_Details;
  } cases[] = {{"c", 0, true},        {"dc", 500, true},      {"fdfdc", 2000, true},
               {"ddddd", 2500, true}, {"ddddf", 2500, false}, {"fffff", 2500, false},
               {"ffffd", 2500, true}, {"fffffc", 2500, false}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_Readings);
    m_Door.m_Slept = 0;
    m_Door.m_Readings = entry.m_Readings;
    SScanned scan(m_Plugin);
    EXPECT_EQ(m_Door.m_Slept, entry.m_Slept);
    const CRVXLogicalDrive& array = scan.Array("md0");
    EXPECT_EQ(array.m_RaidLevel, entry.m_Details ? PI::LEVEL_RAID1 : PI::LEVEL_CONCATENATION);
    EXPECT_EQ(array.m_Children.empty(), !entry.m_Details);
    m_Door.m_Readings.clear();
    Events();
  }
}

TEST_F(ScanArrays, AScanEndsAtOnceWhenTheEndIsAskedFor) {
  m_Door.m_Slept = 0;
  m_Door.m_Readings = "ddddd";
  m_Plugin.m_StopRequest.Set();
  CRVXAdapter adapter;
  std::vector<CRVXPhysicalDrive> drives;
  std::vector<CRVXLogicalDrive> arrays;
  EXPECT_EQ(m_Plugin.ScanSystem(adapter, drives, arrays, false), PI::ERR_SCAN_FAILED);
  EXPECT_EQ(m_Door.m_Slept, 0U);
  EXPECT_THAT(drives, IsEmpty());
}

TEST_F(ScanArrays, AnArrayThatCannotBeOpenedIsKeptWithItsDefaults) {
  m_Plugin.Array("md0").m_Status = PI::STATUS_DEGRADED;
  m_Machine.SetFile("/dev/md0", std::nullopt);
  SScanned scan(m_Plugin);
  const CRVXLogicalDrive& array = scan.Array("md0");
  EXPECT_EQ(m_Door.m_Slept, 0U);
  EXPECT_EQ(array.m_Status, PI::STATUS_OK);
  EXPECT_EQ(array.m_Activity, PI::ACTIVITY_NONE);
  EXPECT_EQ(array.m_LogicalSize, 0U);
  EXPECT_THAT(array.m_Children, IsEmpty());
  EXPECT_EQ(Events(), "");
}

/// What the model knew of the array, what md says now, and what the scan makes of it.
struct SChange {
  const char* m_What;
  std::uint32_t m_ModelStatus, m_ModelActivity;
  int m_State, m_Active, m_Raid, m_Working, m_Failed;
  const char* m_Bar;  ///< null: /proc/mdstat cannot be opened
  std::string m_Events;
  std::uint32_t m_Status, m_Activity, m_Progress;
  bool m_Watched;
};
constexpr std::uint32_t FINE = PI::STATUS_OK, WEAK = PI::STATUS_DEGRADED, FAILED = PI::STATUS_FAILED;
constexpr std::uint32_t NONE = PI::ACTIVITY_NONE, REBUILD = PI::ACTIVITY_REBUILDING,
                        RESYNC = PI::ACTIVITY_RESYNCING;
constexpr char RECOVERY_12[] = "[==>...]  recovery = 12.6% (1/2) finish=1.0min speed=1K/sec";
constexpr char RESYNC_3[] = "[>.....]  resync =  3.0% (1/2) finish=1.0min speed=1K/sec";

const SChange CHANGES[] = {
    // Nothing happens.
    {"fine stays fine", FINE, NONE, 1, 2, 2, 2, 0, "", "", FINE, NONE, 0, false},
    {"degraded stays degraded", WEAK, NONE, 1, 1, 2, 1, 0, "", "", WEAK, NONE, 0, false},
    {"failed stays failed", FAILED, NONE, 0, 0, 2, 0, 2, "", "", FAILED, NONE, 0, false},
    {"resync goes on", FINE, RESYNC, 0, 2, 2, 2, 0, RESYNC_3, "", FINE, RESYNC, 3, true},
    // Starts.
    {"resync starts", FINE, NONE, 0, 2, 2, 2, 0, RESYNC_3, "10085 ", FINE, RESYNC, 3, true},
    {"rebuild starts", WEAK, NONE, 1, 1, 2, 1, 0, RECOVERY_12, "10055 ", WEAK, REBUILD, 12, true},
    {"rebuild follows resync", FINE, RESYNC, 1, 2, 2, 2, 0, RECOVERY_12, "10055 ", FINE, REBUILD, 12, true},
    {"bar without a number", FINE, NONE, 0, 2, 2, 2, 0, "[======>]  resync =100.0% (2/2)", "10085 ", FINE,
     RESYNC, 0, true},
    {"delayed resync has no bar", FINE, NONE, 0, 2, 2, 2, 0, "\tresync=DELAYED", "", FINE, NONE, 0, false},
    // A spare is built in: mdstat is not asked.
    {"spare is built in", WEAK, NONE, 1, 1, 2, 2, 0, RESYNC_3, "10055 ", WEAK, REBUILD, 0, false},
    {"spare is still built in", WEAK, REBUILD, 1, 1, 2, 2, 0, "", "", WEAK, REBUILD, 0, false},
    {"spare after a resync", WEAK, RESYNC, 1, 1, 2, 2, 0, "", "10055 ", WEAK, REBUILD, 0, false},
    // Ends.
    {"rebuild completed", WEAK, REBUILD, 1, 2, 2, 2, 0, "", "10056 10082 ", FINE, NONE, 0, false},
    {"resync completed", FINE, RESYNC, 1, 2, 2, 2, 0, "", "10086 ", FINE, NONE, 0, false},
    {"degraded before counts as completed", WEAK, REBUILD, 1, 1, 2, 1, 1, "", "10056 ", WEAK, NONE, 0, false},
    {"members lost: aborted", FINE, RESYNC, 1, 1, 2, 1, 1, "", "10090/3 10078/4 ", WEAK, NONE, 0, false},
    {"rebuild aborted", FINE, REBUILD, 1, 1, 2, 1, 1, "", "10058/3 10078/4 ", WEAK, NONE, 0, false},
    {"stopped dirty: aborted", WEAK, RESYNC, 2, 2, 2, 2, 0, "", "10090/3 10082 ", FINE, NONE, 0, false},
    {"state 0 is not dirty", WEAK, RESYNC, 0, 2, 2, 2, 0, "", "10086 10082 ", FINE, NONE, 0, false},
    {"dirty after failed: complete counts", FAILED, REBUILD, 2, 2, 2, 2, 0, "", "10056 10082 ", FINE, NONE, 0,
     false},
    {"dirty after failed: incomplete", FAILED, REBUILD, 2, 1, 2, 1, 1, "", "10058/3 ", FAILED, NONE, 0,
     false},
    {"mdstat is gone: no end is seen", FINE, RESYNC, 1, 2, 2, 2, 0, nullptr, "", FINE, NONE, 0, false},
    // Status.
    {"fails", FINE, NONE, 0, 2, 2, 1, 1, "", "10079/4 ", FAILED, NONE, 0, false},
    {"clean with a failed disk is not failed", FINE, NONE, 1, 1, 2, 1, 1, "", "10078/4 ", WEAK, NONE, 0,
     false},
    {"dirty without a failed disk is not failed", FINE, NONE, 0, 1, 2, 1, 0, "", "10078/4 ", WEAK, NONE, 0,
     false},
    {"recovers", FAILED, NONE, 1, 2, 2, 2, 0, "", "10082 ", FINE, NONE, 0, false},
};

TEST(ScanChanges, AreNoticedWithTheirEvents) {
  for (const SChange& change : CHANGES) {
    SCOPED_TRACE(change.m_What);
    SArrayRig rig;
    CRVXLogicalDrive& model = rig.m_Plugin.Array("md0");
    model.m_Status = change.m_ModelStatus;
    model.m_Activity = change.m_ModelActivity;
    rig.m_Door.m_Array = [&](mdu_array_info_s& info) {
      info.state = change.m_State;
      info.active_disks = change.m_Active;
      info.raid_disks = change.m_Raid;
      info.working_disks = change.m_Working;
      info.failed_disks = change.m_Failed;
    };
    if (change.m_Bar != nullptr)
      rig.SetMdstat(change.m_Bar);
    else
      rig.m_Machine.SetFile("/proc/mdstat", std::nullopt);
    SScanned scan(rig.m_Plugin);
    const CRVXLogicalDrive& array = scan.Array("md0");
    for (const PI::CEvent& event : rig.m_Plugin.m_EventQueue) {
      EXPECT_EQ(event.m_ObjectID, model.m_ID);
      EXPECT_EQ(event.m_SourceID, rig.m_Plugin.m_Adapter.m_ID);
      EXPECT_EQ(event.m_PlaceHolder1, "");
      EXPECT_EQ(event.m_PlaceHolder2, "md0");
    }
    EXPECT_EQ(rig.Events(), change.m_Events);
    EXPECT_EQ(array.m_Status, change.m_Status);
    EXPECT_EQ(array.m_Activity, change.m_Activity);
    EXPECT_EQ(array.m_Progress, change.m_Progress);
    EXPECT_EQ(scan.m_Adapter.m_ProgressWatch, change.m_Watched);
    EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_ProgressWatch) << "only the scan's own adapter is marked";
  }
}

TEST_F(ScanArrays, SeveralBarsOfOneNameAreHandledInTurn) {
  const std::string block = " : active raid1 sdb[1] sda[0]\n      1000 blocks super 1.0 [2/2] [UU]\n      ";
  m_Machine.SetFile("/proc/mdstat", "md0" + block + RESYNC_3 + "\nmd00" + block + RECOVERY_12 + "\nmd01" +
                                        block + "\nunused devices: <none>\n");
  SScanned scan(m_Plugin);
  EXPECT_EQ(Events(), "10085 10055 ") << "the block without a bar ends nothing";
  EXPECT_EQ(scan.Array("md0").m_Activity, REBUILD);
  EXPECT_EQ(scan.Array("md0").m_Progress, 12U);
}

TEST_F(ScanArrays, ARebuildOfMd10ShowsOnMd1Too) {
  m_Machine.Apply(R"({"stop_array": "md0"})");
  m_Machine.Apply(R"({"add_array": {"name": "md1", "level": "raid1", "members": ["sda"]}})");
  m_Machine.Apply(R"({"add_array": {"name": "md10", "level": "raid1", "members": ["sdb"]}})");
  SetMdstat(RESYNC_3, "md10");
  SScanned scan(m_Plugin);
  EXPECT_EQ(scan.Array("md1").m_Activity, RESYNC);
  EXPECT_EQ(scan.Array("md10").m_Activity, RESYNC);
  SetMdstat(RESYNC_3, "md1");
  SScanned other(m_Plugin);
  EXPECT_EQ(other.Array("md1").m_Activity, RESYNC);
  EXPECT_EQ(other.Array("md10").m_Activity, NONE);
}

TEST_F(ScanArrays, ANewArrayIsAnnouncedBeforeAllElse) {
  m_Door.m_Array = [](mdu_array_info_s& info) { info.active_disks = 1; };
  SetMdstat(RESYNC_3);
  m_Plugin.m_LogicalDrives.clear();
  SScanned scan(m_Plugin);
  EXPECT_EQ(Events(), "10080 10085 10078/4 ");
  EXPECT_THAT(scan.m_Adapter.m_Children, ElementsAre(scan.Array("md0").m_ID));
}

TEST_F(ScanArrays, AKnownArrayKeepsIdentifierAndDocument) {
  const CRVXLogicalDrive& model = m_Plugin.Array("md0");
  SScanned scan(m_Plugin);
  EXPECT_EQ(scan.Array("md0").m_ID, model.m_ID);
  EXPECT_EQ(scan.Array("md0").m_Configuration.GetDoc(), model.m_Configuration.GetDoc());
  EXPECT_THAT(scan.m_Adapter.m_Children, IsEmpty());
  const unsigned long next = m_Plugin.NewID();
  EXPECT_EQ(next, model.m_ID + 1) << "a scan in which nothing is new uses no identifier up";
}

TEST_F(ScanArrays, OnlyTheFirstScanBuildsDocuments) {
  const auto id = [&](const char* name) { return std::to_string(m_Plugin.Drive(name).m_ID); };
  EXPECT_EQ(m_Plugin.Array("md0").m_Configuration.GetDoc(),
            "<LogicalDriveConfiguration Size=\"0\" Units=\"0\" SpanCount=\"1\" "
            "SpanSize=\"2\"><Containers><Container>"
            "<Drive ObjectID=\"" +
                id("sda") +
                "\" StartAddress=\"0\" UsedSize=\"0\"/>"
                "<Drive ObjectID=\"" +
                id("sdb") +
                "\" StartAddress=\"0\" UsedSize=\"0\"/>"
                "</Container></Containers><DedicatedHotSpares><Drive ObjectID=\"" +
                id("sdc") + "\"/></DedicatedHotSpares></LogicalDriveConfiguration>");
  m_Door.m_Array = [](mdu_array_info_s& info) { info.chunk_size = 4096; };
  m_Plugin.m_LogicalDrives.clear();
  SScanned worker(m_Plugin);
  EXPECT_TRUE(worker.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(worker.Array("md0").m_StripeSize, PI::STRIPE_4K);
  SScanned first(m_Plugin, true);
  EXPECT_FALSE(first.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(first.Array("md0").m_StripeSize, PI::STRIPE_64K) << "the query behind the document overwrites it";
}

TEST_F(ScanArrays, MembersOnPartitionsCountAsTheirDisks) {
  m_Machine.Apply(R"({"stop_array": "md0"})");
  for (const char* disk : {"sda", "sdc"})
    m_Machine.Apply(R"({"partition": {"device": ")" + std::string(disk) +
                    R"(", "partitions": [{"size": 100000}, {"size": 200000}]}})");
  m_Machine.Apply(R"({"add_array": {"name": "md_d7", "level": "raid0", "members": ["sdc2", "sda1"]}})");
  SScanned scan(m_Plugin);
  const CRVXLogicalDrive& array = scan.Array("md_d7");
  EXPECT_EQ(array.m_ArrayNumber, 7U);
  EXPECT_THAT(array.m_Children, ElementsAre(scan.Drive("sdc").m_ID, scan.Drive("sda").m_ID));
  EXPECT_EQ(array.m_LogicalSize, 1000016U + 1000000U);
  EXPECT_EQ(scan.Drive("sda").m_IsMemberOf, 7);
}

TEST_F(ScanArrays, MembersOutsideAreLeftOut) {
  m_Machine.Apply(R"({"stop_array": "md0"})");
  // sde hangs on a controller that is not managed; number 5 lies behind the number of managed disks.
  m_Machine.Apply(R"({"add_array": {"name": "md0", "level": "raid1", "raid_disks": 3, "members":
    [{"disk": "sde", "slot": 0}, {"disk": "sdb", "slot": 1}, {"disk": "sdc", "slot": 2, "number": 5}]}})");
  const std::uint64_t asked = m_Machine.IoctlCount(GET_DISK_INFO);
  SScanned scan(m_Plugin);
  EXPECT_EQ(m_Machine.IoctlCount(GET_DISK_INFO) - asked, 4U) << "as many as there are managed disks";
  EXPECT_THAT(scan.Array("md0").m_Children, ElementsAre(scan.Drive("sdb").m_ID));
  EXPECT_EQ(scan.Array("md0").m_LogicalSize, 1000004U);
  EXPECT_EQ(scan.Drive("sdc").m_IsMemberOf, -1);
  EXPECT_EQ(scan.m_Drives.size(), 4U);
}

TEST_F(ScanArrays, ALinearArrayShortOfMembersIsAnnouncedAsFineOnEveryPass) {
  m_Machine.Apply(R"({"stop_array": "md0"})");
  m_Machine.Apply(R"({"add_array": {"name": "md0", "level": "linear", "members": ["sda", "sde"]}})");
  m_Plugin.Drive("sdb").m_Status = PI::STATUS_READY;
  m_Plugin.Array("md0").m_Status = FINE;
  const char* const passes[] = {"10078/4 ", "10082 ", "10082 "};
  for (const char* events : passes) {
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Array("md0").m_Status, WEAK);
    EXPECT_EQ(Events(), events);
    m_Plugin.Array("md0").m_Status = scan.Array("md0").m_Status;
  }
  // Short of members by md's own account: both rules report it.
  m_Plugin.Array("md0").m_Status = FINE;
  m_Door.m_Array = [](mdu_array_info_s& info) {
    info.active_disks = 1;
    info.working_disks = 1;
  };
  const SScanned scan(m_Plugin);
  EXPECT_EQ(Events(), "10078/4 10078/4 ");
}

TEST(ScanManyDisks, DiskNumbersEndBefore384) {
  std::string disks;
  for (int number = 0; number < 390; ++number) {
    std::string name = "sd";
    if (number >= 26) name += static_cast<char>('a' + number / 26 - 1);
    name += static_cast<char>('a' + number % 26);
    disks += Text("%s{\"name\": \"%s\", \"controller\": \"c\", \"size\": 2048, \"device\": \"%d:%d\"}",
                  number == 0 ? "" : ",", name, 300 + number / 16, number % 16 * 16);
  }
  SRig rig(R"({"controllers": [{"name": "c", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],
    "disks": [)" +
           disks + R"(], "arrays": [{"name": "md0", "level": "raid1", "raid_disks": 2, "members":
    [{"disk": "sda", "slot": 0, "number": 383}, {"disk": "sdb", "slot": 1, "number": 384}]}]})");
  ASSERT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 390U);
  const std::uint64_t asked = rig.m_Machine.IoctlCount(GET_DISK_INFO);
  SScanned scan(rig.m_Plugin);
  EXPECT_EQ(rig.m_Machine.IoctlCount(GET_DISK_INFO) - asked, 384U);
  EXPECT_THAT(scan.Array("md0").m_Children, ElementsAre(scan.Drive("sda").m_ID));
}

}  // namespace
