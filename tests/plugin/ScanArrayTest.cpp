// The scan's array pass.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"
#include "tests/support/Scan.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Lets the readings of an array's record find it in other states.
class CUnrestDoor : public CMdDoor {
 public:
  using CMdDoor::CMdDoor;
  std::string m_Readings;  ///< a letter each: clean, dirty, failing. Then as it is

  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    const int result = CMdDoor::Ioctl(descriptor, request, argument);
    if (request != GET_ARRAY_INFO || m_Readings.empty()) return result;
    const char reading = m_Readings.front();
    m_Readings.erase(0, 1);
    static_cast<mdu_array_info_t*>(argument)->state = reading == 'c' ? 1 : 0;
    return reading == 'f' ? -1 : result;
  }
};

/// A mirror md0 of the first two disks with the third as its spare, and a free disk.
struct SArrayRig : public SRigOf<CUnrestDoor> {
  SArrayRig()
      : SRigOf(DisksOf({1000000, 1000004, 1000016, 1000064}, MirrorOfTwo("md0", R"("spares": ["sdc"])"))) {
    m_Plugin.TakeEvents();
  }
  /// The queued events: codes, and severities where they are not the default.
  std::string Events() {
    std::string text;
    for (const PI::CEvent& event : m_Plugin.TakeEvents()) {
      text += std::to_string(event.m_Code);
      if (event.m_Severity != PI::SEV_DEFAULT) text += Text("/%d", event.m_Severity);
      text += " ";
    }
    return text;
  }
  void SetMdstat(const std::string& bar, const std::string& name = "md0") {
    m_Machine.SetFile("/proc/mdstat",
                      "Personalities : [raid1] \n" + name +
                          " : active raid1 sdb[1] sda[0]\n      1000 blocks super 1.0 [2/2] [UU]\n" + bar +
                          "\n      \nunused devices: <none>\n");
  }
  /// Puts another array in the place of md0.
  void Replace(const std::string& array) {
    m_Machine.Apply(R"({"stop_array": "md0"})");
    m_Machine.Apply(R"({"add_array": )" + array + "}");
  }
  /// A disk that is in the machine and not managed: its controller makes volumes of its own.
  void AddForeignDisk() {
    m_Machine.Apply(R"({"add_disk": {"name": "sde", "controller": "sas", "size": 1000128,
                                     "vendor": "LSILOGIC", "model": "Logical Volume"}})");
  }
};

struct ScanArrays : public testing::Test, public SArrayRig {};

TEST_F(ScanArrays, ListsTheMembersInMdsOrderWithTheirStates) {
  SScanned scan(m_Plugin);
  const CRVXLogicalDrive& array = scan.Array("md0");
  EXPECT_EQ(array.m_DeviceKey, "SoftRAID0&BLKDEV:Major=9&Minor=0");
  EXPECT_EQ(array.m_RaidLevel, PI::LEVEL_RAID1);
  EXPECT_EQ(array.m_LogicalSize, 1000000U + 1000004U + 1000016U) << "spares count too";
  EXPECT_THAT(array.m_Children,
              ElementsAre(scan.Drive("sda").m_ID, scan.Drive("sdb").m_ID, scan.Drive("sdc").m_ID));
  for (const auto& [name, status, member] :
       {std::tuple{"sda", PI::STATUS_OK, 0}, {"sdc", PI::STATUS_SPARE, 0}, {"sdd", PI::STATUS_READY, -1}}) {
    EXPECT_EQ(scan.Drive(name).m_Status, status) << name;
    EXPECT_EQ(scan.Drive(name).m_IsMemberOf, member) << name;
  }
}

TEST_F(ScanArrays, LevelsAndChunksHaveTheirChoices) {
  const std::pair<int, unsigned int> levels[] = {{0, 40007}, {10, 40018}, {4, 40013}, {5, 40014},
                                                 {6, 40017}, {-1, 40021}, {7, 40021}};
  const std::pair<int, unsigned int> chunks[] = {{4096, 40049},  {8192, 40050},   {16384, 40051},
                                                 {32768, 40052}, {131072, 40054}, {262144, 40053},
                                                 {0, 40053}};
  for (std::size_t at = 0; at < std::size(levels); ++at) {
    m_Own.m_Array = [&](mdu_array_info_t& info) {
      info.level = levels[at].first;
      info.chunk_size = chunks[at].first;
    };
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Array("md0").m_RaidLevel, levels[at].second) << levels[at].first;
    EXPECT_EQ(scan.Array("md0").m_StripeSize, chunks[at].second) << chunks[at].first;
  }
}

TEST_F(ScanArrays, AMembersStatusFollowsFromMdsBits) {
  const struct {
    int m_State, m_RaidDisk;
    std::uint32_t m_Status, m_Activity;
  } cases[] = {
      {6 | 512, 0, 40093, 40102},  // active, in sync, and write-mostly beside it
      {2, 0, 40096, 40096},        // active alone
      {7, 0, 40095, 40102},        // faulty wins
      {0, 1, 40096, 40096},       {0, -1, 40098, 40102},
      {8, -1, 40093, 40102},  // anything else: as the disk pass left it
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_State);
    m_Own.m_Disks = {{0, {0, 8, 0, entry.m_RaidDisk, entry.m_State}}};
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Drive("sda").m_Status, entry.m_Status);
    EXPECT_EQ(scan.Drive("sda").m_Activity, entry.m_Activity);
    EXPECT_EQ(m_Plugin.Drive("sda").m_Status, PI::STATUS_OK) << "the model is not the scan's to change";
  }
}

TEST_F(ScanArrays, MdGetsFiveChancesToBecomeClean) {
  const struct {
    const char* m_Readings;
    std::uint64_t m_Slept;
    bool m_Details;
  } cases[] = {{"c", 0, true},         {"fdfdc", 2000, true}, {"ddddd", 2500, true},
               {"ddddf", 2500, false}, {"ffffd", 2500, true}, {"fffffc", 2500, false}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_Readings);
    const std::uint64_t start = m_Machine.Now();
    m_Own.m_Readings = entry.m_Readings;
    SScanned scan(m_Plugin);
    EXPECT_EQ(m_Machine.Now() - start, entry.m_Slept);
    EXPECT_EQ(scan.Array("md0").m_RaidLevel, entry.m_Details ? PI::LEVEL_RAID1 : PI::LEVEL_CONCATENATION);
    EXPECT_EQ(scan.Array("md0").m_Children.empty(), !entry.m_Details);
  }
  const std::uint64_t start = m_Machine.Now();
  m_Own.m_Readings = "ddddd";
  m_Plugin.m_StopRequest.Set();
  EXPECT_EQ(SScanned(m_Plugin).m_Status, PI::ERR_SCAN_FAILED);
  EXPECT_EQ(m_Machine.Now(), start) << "a scan ends at once when the end is asked for";
}

constexpr std::uint32_t FINE = PI::STATUS_OK, WEAK = PI::STATUS_DEGRADED, FAILED = PI::STATUS_FAILED;
constexpr std::uint32_t NONE = PI::ACTIVITY_NONE, REBUILD = PI::ACTIVITY_REBUILDING,
                        RESYNC = PI::ACTIVITY_RESYNCING;
constexpr char RECOVERY_12[] = "[==>...]  recovery = 12.6% (1/2) finish=1.0min speed=1K/sec";
constexpr char RESYNC_3[] = "[>.....]  resync =  3.0% (1/2) finish=1.0min speed=1K/sec";

/// What the model knew of the array, what md says now, and what the scan makes of it.
const struct SChange {
  const char* m_What;
  std::uint32_t m_ModelStatus, m_ModelActivity;
  int m_State, m_Active, m_Working, m_Failed;
  const char* m_Bar;  ///< null: /proc/mdstat cannot be opened
  std::string m_Events;
  std::uint32_t m_Status, m_Activity, m_Progress;
} CHANGES[] = {
    // Nothing happens.
    {"degraded stays degraded", WEAK, NONE, 1, 1, 1, 0, "", "", WEAK, NONE, 0},
    {"resync goes on", FINE, RESYNC, 0, 2, 2, 0, RESYNC_3, "", FINE, RESYNC, 3},
    // Starts.
    {"resync starts", FINE, NONE, 0, 2, 2, 0, RESYNC_3, "10085 ", FINE, RESYNC, 3},
    {"rebuild starts", WEAK, NONE, 1, 1, 1, 0, RECOVERY_12, "10055 ", WEAK, REBUILD, 12},
    {"rebuild follows resync", FINE, RESYNC, 1, 2, 2, 0, RECOVERY_12, "10055 ", FINE, REBUILD, 12},
    // A spare is built in: mdstat is not asked.
    {"spare is built in", WEAK, NONE, 1, 1, 2, 0, RESYNC_3, "10055 ", WEAK, REBUILD, 0},
    // Ends.
    {"rebuild completed", WEAK, REBUILD, 1, 2, 2, 0, "", "10056 10082 ", FINE, NONE, 0},
    {"resync completed", FINE, RESYNC, 1, 2, 2, 0, "", "10086 ", FINE, NONE, 0},
    {"degraded before counts as completed", WEAK, REBUILD, 1, 1, 1, 1, "", "10056 ", WEAK, NONE, 0},
    {"members lost: aborted", FINE, RESYNC, 1, 1, 1, 1, "", "10090/3 10078/4 ", WEAK, NONE, 0},
    {"stopped dirty: aborted", WEAK, RESYNC, 2, 2, 2, 0, "", "10090/3 10082 ", FINE, NONE, 0},
    {"state 0 is not dirty", WEAK, RESYNC, 0, 2, 2, 0, "", "10086 10082 ", FINE, NONE, 0},
    {"dirty after failed: complete counts", FAILED, REBUILD, 2, 2, 2, 0, "", "10056 10082 ", FINE, NONE, 0},
    {"dirty after failed: incomplete", FAILED, REBUILD, 2, 1, 1, 1, "", "10058/3 ", FAILED, NONE, 0},
    {"mdstat is gone: no end is seen", FINE, RESYNC, 1, 2, 2, 0, nullptr, "", FINE, NONE, 0},
    // Status.
    {"fails", FINE, NONE, 0, 2, 1, 1, "", "10079/4 ", FAILED, NONE, 0},
    {"dirty without a failed disk is not failed", FINE, NONE, 0, 1, 1, 0, "", "10078/4 ", WEAK, NONE, 0},
    {"recovers", FAILED, NONE, 1, 2, 2, 0, "", "10082 ", FINE, NONE, 0},
};

TEST(ScanChanges, AreNoticedWithTheirEvents) {
  for (const SChange& change : CHANGES) {
    SCOPED_TRACE(change.m_What);
    SArrayRig rig;
    CRVXLogicalDrive& model = rig.m_Plugin.Array("md0");
    model.m_Status = change.m_ModelStatus;
    model.m_Activity = change.m_ModelActivity;
    rig.m_Own.m_Array = [&](mdu_array_info_t& info) {
      info.state = change.m_State;
      info.active_disks = change.m_Active;
      info.working_disks = change.m_Working;
      info.failed_disks = change.m_Failed;
    };
    rig.SetMdstat(change.m_Bar != nullptr ? change.m_Bar : "");
    if (change.m_Bar == nullptr) rig.m_Machine.SetFile("/proc/mdstat", std::nullopt);
    SScanned scan(rig.m_Plugin);
    for (const PI::CEvent& event : rig.m_Plugin.m_EventQueue) {
      EXPECT_EQ(event.m_ObjectID, model.m_ID);
      EXPECT_EQ(event.m_PlaceHolder2, "md0");
    }
    EXPECT_EQ(rig.Events(), change.m_Events);
    EXPECT_EQ(scan.Array("md0").m_Status, change.m_Status);
    EXPECT_EQ(scan.Array("md0").m_Activity, change.m_Activity);
    EXPECT_EQ(scan.Array("md0").m_Progress, change.m_Progress);
    EXPECT_EQ(scan.m_Adapter.m_ProgressWatch, change.m_Progress != 0);
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

TEST_F(ScanArrays, ANewArrayIsAnnouncedBeforeAllElseAndAKnownOneKeepsItsIdentifier) {
  const CRVXLogicalDrive model = m_Plugin.Array("md0");
  SScanned known(m_Plugin);
  EXPECT_EQ(known.Array("md0").m_ID, model.m_ID);
  EXPECT_EQ(known.Array("md0").m_Configuration.GetDoc(), model.m_Configuration.GetDoc());
  EXPECT_THAT(known.m_Adapter.m_Children, IsEmpty());
  m_Own.m_Array = [](mdu_array_info_t& info) { info.active_disks = 1; };
  SetMdstat(RESYNC_3);
  m_Plugin.m_LogicalDrives.clear();
  SScanned scan(m_Plugin);
  EXPECT_EQ(Events(), "10080 10085 10078/4 ");
  EXPECT_THAT(scan.m_Adapter.m_Children, ElementsAre(model.m_ID + 1))
      << "the first scan used no identifier up";
}

TEST_F(ScanArrays, OnlyTheFirstScanBuildsDocuments) {
  m_Own.m_Array = [](mdu_array_info_t& info) { info.chunk_size = 4096; };
  m_Plugin.m_LogicalDrives.clear();
  SScanned worker(m_Plugin);
  EXPECT_TRUE(worker.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(worker.Array("md0").m_StripeSize, PI::STRIPE_4K);
  SScanned first(m_Plugin, true);
  EXPECT_FALSE(first.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(first.Array("md0").m_StripeSize, PI::STRIPE_64K) << "the query behind the document overwrites it";
}

TEST_F(ScanArrays, MembersOutsideAreLeftOut) {
  AddForeignDisk();
  // Number 5 lies behind the number of managed disks.
  Replace(R"({"name": "md0", "level": "raid1", "raid_disks": 3, "members":
    [{"disk": "sde", "slot": 0}, {"disk": "sdb", "slot": 1}, {"disk": "sdc", "slot": 2, "number": 5}]})");
  SScanned scan(m_Plugin);
  EXPECT_THAT(scan.Array("md0").m_Children, ElementsAre(scan.Drive("sdb").m_ID));
  EXPECT_EQ(scan.Array("md0").m_LogicalSize, 1000004U);
  EXPECT_EQ(scan.Drive("sdc").m_IsMemberOf, -1);
  EXPECT_EQ(scan.m_Drives.size(), 4U);
}

TEST_F(ScanArrays, ALinearArrayShortOfMembersIsAnnouncedAsFineOnEveryPass) {
  AddForeignDisk();
  Replace(R"({"name": "md0", "level": "linear", "members": ["sda", "sde"]})");
  for (const char* disk : {"sdb", "sdc"}) m_Plugin.Drive(disk).m_Status = PI::STATUS_READY;
  m_Plugin.Array("md0").m_Status = FINE;
  for (const char* events : {"10078/4 ", "10082 ", "10082 "}) {
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Array("md0").m_Status, WEAK);
    EXPECT_EQ(Events(), events);
    m_Plugin.Array("md0").m_Status = scan.Array("md0").m_Status;
  }
  // Short of members by md's own account: both rules report it.
  m_Plugin.Array("md0").m_Status = FINE;
  m_Own.m_Array = [](mdu_array_info_t& info) { info.active_disks = info.working_disks = 1; };
  const SScanned scan(m_Plugin);
  EXPECT_EQ(Events(), "10078/4 10078/4 ");
}

}  // namespace
