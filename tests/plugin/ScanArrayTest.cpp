// The scan's array pass.

#include "tests/support/Arrays.h"
#include "tests/support/Scan.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;

namespace {

/// A mirror md0 of the first two disks with the third as its spare, a free disk, and one that is not managed
/// any more: its controller makes volumes of its own.
struct SArrayRig : public SMdRig {
  SArrayRig()
      : SRigOf(DisksOf({1000000, 1000004, 1000016, 1000064, 1000128},
                       MirrorOfTwo("md0", R"("spares": ["sdc"])"))) {
    m_Machine.SetFile("/sys/block/sde/device/vendor", "LSILOGIC\n");
    m_Machine.SetFile("/sys/block/sde/device/model", "Logical Volume\n");
  }
  /// Blocks of /proc/mdstat with these bars: of md0, and further ones whose names contain its.
  void SetMdstat(const std::vector<std::string>& bars) {
    std::string text = "Personalities : [raid1] \n";
    for (const std::string& bar : bars)
      text += Text("md0%s : active raid1 sdb[1] sda[0]\n      1000 blocks super 1.0 [2/2] [UU]\n%s\n      \n",
                   &bar == &bars[0] ? "" : "0", bar);
    m_Machine.SetFile("/proc/mdstat", text + "unused devices: <none>\n");
  }
  /// Puts another array in the place of md0.
  void Replace(const std::string& array) {
    m_Machine.Apply(R"({"stop_array": "md0"})");
    m_Machine.Apply(R"({"add_array": )" + array + "}");
  }
  std::string EventsOf(const CRVXLogicalDrive& array) { return m_Plugin.TakeEventText(array.m_ID); }
};

struct ScanArrays : public testing::Test, public SArrayRig {};

TEST_F(ScanArrays, ChunksHaveTheirChoicesAndFurtherLevelsOne) {
  const std::pair<int, unsigned int> stripes[] = {{4096, 40049},  {8192, 40050},   {16384, 40051},
                                                  {32768, 40052}, {131072, 40054}, {262144, 40053},
                                                  {0, 40053}};
  for (const auto& stripe : stripes) {
    m_Own.m_Array = [&](mdu_array_info_t& info) { info.level = 7, info.chunk_size = stripe.first; };
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Array("md0").m_RaidLevel, PI::LEVEL_CONCATENATION);
    EXPECT_EQ(scan.Array("md0").m_StripeSize, stripe.second) << stripe.first;
  }
}

TEST_F(ScanArrays, AMembersStatusFollowsFromMdsBits) {
  const struct {
    int m_State, m_RaidDisk;
    std::uint32_t m_Status, m_Activity;
  } cases[] = {{6 | 512, 0, 40093, 40102},  // active, in sync, and write-mostly beside it
               {2, 0, 40096, 40096},        // active alone
               {7, 0, 40095, 40102},        // faulty wins
               {0, 1, 40096, 40096},       {0, -1, 40098, 40102},
               {8, -1, 40093, 40102}};  // anything else: as the disk pass left it
  CRVXPhysicalDrive& model = m_Plugin.Drive("sda");
  model.m_IsMemberOf = 7;
  for (const auto& entry : cases) {
    SCOPED_TRACE(entry.m_State);
    m_Own.m_Disks = {{0, {0, 8, 0, entry.m_RaidDisk, entry.m_State}}};
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Drive("sda").m_Status, entry.m_Status);
    EXPECT_EQ(scan.Drive("sda").m_Activity, entry.m_Activity);
    EXPECT_EQ(scan.Drive("sda").m_IsMemberOf, 0);
    EXPECT_EQ(scan.Drive("sdb").m_IsMemberOf, CRVXPhysicalDrive::NO_ARRAY);
    EXPECT_EQ(Text("%d %d", model.m_Status, model.m_IsMemberOf), "40093 7") << "not the scan's to change";
  }
}

TEST_F(ScanArrays, MdIsAskedForAsManyMembersAsThereAreDisksAtMost384) {
  for (const std::size_t count : {0U, 3U, 400U}) {
    std::string partitions = "major minor  #blocks  name\n\n";
    for (std::size_t disk = 0; disk < count; ++disk) partitions += "8 0 1000000 sda\n";
    m_Machine.SetFile("/proc/partitions", partitions + "9 0 1000000 md0\n");
    m_Own.m_DiskQueries = 0;
    SScanned scan(m_Plugin);
    EXPECT_EQ(m_Own.m_DiskQueries, std::min<std::size_t>(count, 384));
    PI::CLogicalDrive description;
    m_Plugin.GetLogicalDriveConfiguration(scan.Array("md0"), description, scan.m_Drives);
    EXPECT_EQ(m_Own.m_DiskQueries, 2 * std::min<std::size_t>(count, 384)) << "the configuration asks alike";
  }
}

TEST_F(ScanArrays, MdGetsFiveChancesToBecomeClean) {
  const struct {
    std::uint64_t m_FirstFailure, m_Failures;
    int m_Dirty;  ///< readings that find it so before one finds it clean
    std::uint64_t m_Slept;
    bool m_Details;
  } cases[] = {{9, 1, 0, 0, true},     {1, 2, 2, 2000, true}, {9, 1, 5, 2500, true},
               {5, 1, 9, 2500, false}, {1, 4, 9, 2500, true}, {1, 5, 0, 2500, false}};
  int dirty = 0;
  m_Own.m_Array = [&](mdu_array_info_t& info) { info.state = dirty-- > 0 ? 0 : 1; };
  for (const auto& entry : cases) {
    SCOPED_TRACE(Text("%d %d", entry.m_FirstFailure, entry.m_Dirty));
    const std::uint64_t start = m_Machine.Now();
    dirty = entry.m_Dirty;
    m_Door.FailAt(CFaultyMachine::ECall::Ioctl, entry.m_FirstFailure, EIO, entry.m_Failures - 1);
    SScanned scan(m_Plugin);
    EXPECT_EQ(m_Machine.Now() - start, entry.m_Slept);
    EXPECT_EQ(scan.Array("md0").m_RaidLevel, entry.m_Details ? PI::LEVEL_RAID1 : PI::LEVEL_CONCATENATION);
    EXPECT_EQ(scan.Array("md0").m_Children.empty(), !entry.m_Details);
  }
  const std::uint64_t start = m_Machine.Now();
  dirty = 5;
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
  const char* m_Events;
  std::uint32_t m_Status, m_Activity, m_Progress;
} CHANGES[] = {
    {"degraded stays degraded", WEAK, NONE, 1, 1, 1, 0, "", "", WEAK, NONE, 0},
    {"resync goes on", FINE, RESYNC, 0, 2, 2, 0, RESYNC_3, "", FINE, RESYNC, 3},
    {"resync starts", FINE, NONE, 0, 2, 2, 0, RESYNC_3, "10085/2 md0 ", FINE, RESYNC, 3},
    {"rebuild starts", WEAK, NONE, 1, 1, 1, 0, RECOVERY_12, "10055/2 md0 ", WEAK, REBUILD, 12},
    {"rebuild follows resync", FINE, RESYNC, 1, 2, 2, 0, RECOVERY_12, "10055/2 md0 ", FINE, REBUILD, 12},
    {"spare is built in, not asked", WEAK, NONE, 1, 1, 2, 0, RESYNC_3, "10055/2 md0 ", WEAK, REBUILD, 0},
    {"rebuild completed", WEAK, REBUILD, 1, 2, 2, 0, "", "10056/2 md0 10082/2 md0 ", FINE, NONE, 0},
    {"resync completed", FINE, RESYNC, 1, 2, 2, 0, "", "10086/2 md0 ", FINE, NONE, 0},
    {"degraded before counts as completed", WEAK, REBUILD, 1, 1, 1, 1, "", "10056/2 md0 ", WEAK, NONE, 0},
    {"members lost: aborted", FINE, RESYNC, 1, 1, 1, 1, "", "10090/3 md0 10078/4 md0 ", WEAK, NONE, 0},
    {"stopped dirty: aborted", WEAK, RESYNC, 2, 2, 2, 0, "", "10090/3 md0 10082/2 md0 ", FINE, NONE, 0},
    {"state 0 is not dirty", WEAK, RESYNC, 0, 2, 2, 0, "", "10086/2 md0 10082/2 md0 ", FINE, NONE, 0},
    {"dirty and failed: complete", FAILED, REBUILD, 2, 2, 2, 0, "", "10056/2 md0 10082/2 md0 ", FINE, NONE,
     0},
    {"dirty and failed: incomplete", FAILED, REBUILD, 2, 1, 1, 1, "", "10058/3 md0 ", FAILED, NONE, 0},
    {"mdstat is gone: no end is seen", FINE, RESYNC, 1, 2, 2, 0, nullptr, "", FINE, NONE, 0},
    {"fails", FINE, NONE, 0, 2, 1, 1, "", "10079/4 md0 ", FAILED, NONE, 0},
    {"dirty without a failed disk is not failed", FINE, NONE, 0, 1, 1, 0, "", "10078/4 md0 ", WEAK, NONE, 0},
    {"recovers", FAILED, NONE, 1, 2, 2, 0, "", "10082/2 md0 ", FINE, NONE, 0},
};

TEST(ScanChanges, AreNoticedWithTheirEvents) {
  for (const SChange& change : CHANGES) {
    SCOPED_TRACE(change.m_What);
    SArrayRig rig;
    CRVXLogicalDrive& model = rig.m_Plugin.Array("md0");
    model.m_Status = change.m_ModelStatus;
    model.m_Activity = change.m_ModelActivity;
    model.m_Progress = 77;
    rig.m_Own.m_Array = [&](mdu_array_info_t& info) {
      info.state = change.m_State;
      info.active_disks = change.m_Active;
      info.working_disks = change.m_Working;
      info.failed_disks = change.m_Failed;
    };
    rig.SetMdstat({change.m_Bar != nullptr ? change.m_Bar : ""});
    if (change.m_Bar == nullptr) rig.m_Machine.SetFile("/proc/mdstat", std::nullopt);
    SScanned scan(rig.m_Plugin);
    EXPECT_EQ(rig.EventsOf(model), change.m_Events);
    const CRVXLogicalDrive& array = scan.Array("md0");
    EXPECT_EQ(Text("%d %d %d", array.m_Status, array.m_Activity, array.m_Progress),
              Text("%d %d %d", change.m_Status, change.m_Activity, change.m_Progress));
    EXPECT_EQ(scan.m_Adapter.m_ProgressWatch, change.m_Progress != 0);
    EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_ProgressWatch) << "only the scan's own adapter is marked";
  }
}

TEST_F(ScanArrays, SeveralBarsOfOneNameAreHandledInTurn) {
  SetMdstat({RESYNC_3, RECOVERY_12, "", "[=]  recovery = 101.0% (1/2)"});
  SScanned scan(m_Plugin);
  EXPECT_EQ(EventsOf(m_Plugin.Array("md0")), "10085/2 md0 10055/2 md0 ") << "one without a bar ends nothing";
  EXPECT_EQ(scan.Array("md0").m_Activity, REBUILD);
  EXPECT_EQ(scan.Array("md0").m_Progress, 0U) << "the last one is no percentage";
}

TEST_F(ScanArrays, ANewArrayIsAnnouncedBeforeAllElseAndOnlyTheFirstScanBuildsDocuments) {
  const CRVXLogicalDrive model = m_Plugin.Array("md0");
  SScanned known(m_Plugin);
  EXPECT_EQ(known.Array("md0").m_ID, model.m_ID);
  EXPECT_EQ(known.Array("md0").m_Configuration.GetDoc(), model.m_Configuration.GetDoc());
  EXPECT_EQ(known.m_Adapter.m_Children.size(), 0U);
  m_Own.m_Array = [](mdu_array_info_t& info) { info.active_disks = 1, info.chunk_size = 4096; };
  SetMdstat({RESYNC_3});
  m_Plugin.m_LogicalDrives.clear();
  SScanned fresh(m_Plugin);
  EXPECT_EQ(EventsOf(fresh.Array("md0")), "10080/2 md0 10085/2 md0 10078/4 md0 ");
  EXPECT_THAT(fresh.m_Adapter.m_Children, ElementsAre(model.m_ID + 1)) << "the known one used none up";
  EXPECT_TRUE(fresh.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(fresh.Array("md0").m_StripeSize, PI::STRIPE_4K);
  SScanned first(m_Plugin, true);
  EXPECT_EQ(EventsOf(first.Array("md0")), "10085/2 md0 10078/4 md0 ") << "it was there before";
  EXPECT_FALSE(first.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(first.Array("md0").m_StripeSize, PI::STRIPE_64K) << "the query behind the document overwrites it";
}

TEST_F(ScanArrays, MembersOutsideAreLeftOut) {
  // Number 5 lies behind the number of managed disks.
  Replace(R"({"name": "md0", "level": "raid1", "raid_disks": 3, "members":
    [{"disk": "sde", "slot": 0}, {"disk": "sdb", "slot": 1}, {"disk": "sdc", "slot": 2, "number": 5}]})");
  SScanned scan(m_Plugin);
  EXPECT_THAT(scan.Array("md0").m_Children, ElementsAre(scan.Drive("sdb").m_ID));
  EXPECT_EQ(scan.Array("md0").m_LogicalSize, 1000004U);
  EXPECT_EQ(scan.Drive("sdc").m_IsMemberOf, CRVXPhysicalDrive::NO_ARRAY);
  EXPECT_EQ(scan.m_Drives.size(), 4U);
}

TEST_F(ScanArrays, OfArraysShortOfMembersALinearOneIsAnnouncedAsFineOnEveryPass) {
  const std::tuple<const char*, std::uint32_t, const char*> steps[] = {
      {"raid0", FINE, ""}, {"linear", WEAK, "10078/4 md0 "}, {"linear", WEAK, "10082/2 md0 "}};
  for (const char* disk : {"sdb", "sdc"}) m_Plugin.Drive(disk).m_Status = PI::STATUS_READY;
  CRVXLogicalDrive& model = m_Plugin.Array("md0");
  for (const auto& [level, status, events] : steps) {
    Replace(Text(R"({"name": "md0", "level": "%s", "members": ["sda", "sde"]})", level));
    SScanned scan(m_Plugin);
    EXPECT_EQ(scan.Array("md0").m_Status, status);
    EXPECT_EQ(EventsOf(model), events);
    model.m_Status = status;
  }
  // Short of members by md's own account: both rules report it.
  model.m_Status = FINE;
  m_Own.m_Array = [](mdu_array_info_t& info) { info.active_disks = info.working_disks = 1; };
  const SScanned scan(m_Plugin);
  EXPECT_EQ(EventsOf(model), "10078/4 md0 10078/4 md0 ");
}

}  // namespace
