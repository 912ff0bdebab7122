// Which disks are managed, and the scan's passes over disks and arrays.

#include "Src/piRVXPluginQualify.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;

namespace {

const std::string FOLDER = "/sys/devices/pci0000:00/0000:00:1f.2";

struct SBench : public SBareRig<> {
  explicit SBench(const std::string& driver = "ahci")
      : SBareRig(Text(R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "driver": "%s"}],
                          "disks": [{"name": "sda", "controller": "c", "size": 1048576}]})",
                      driver)) {}
  bool Qualifies(const std::string& folder = "/sys/block/sda/device") {
    return CQualification(m_System).checkpd(folder, "sda");
  }
};

TEST(Qualification, TakesTwoVendorsAndFiveDriversAndNothingElse) {
  // Names count without an extension; of the vendor's first line the last character goes whatever it is.
  const std::tuple<std::string, const char*, bool> cases[] = {{"0x8086\n", "ata_piix", true},
                                                              {"0x1000\n", "mptsas", true},
                                                              {"0x8086\n", "mpt3sas", true},
                                                              {"0x1000.x\n", "ahci.x", true},
                                                              {"0x1022\n", "ahci", false},
                                                              {"0x80861\n", "ahci", false},
                                                              {"0x8086\n", "AHCI", false},
                                                              {"0x8086\n", "ahci_platform", false},
                                                              {"0x80867", "ahci", true},
                                                              {"0x8086", "ahci", false},
                                                              {"", "ahci", false},
                                                              {"0x8086\n0x1022\n", "ahci", true}};
  for (const auto& [vendor, driver, qualifies] : cases) {
    SBench bench(driver);
    bench.m_Machine.SetFile(FOLDER + "/vendor", vendor);
    EXPECT_EQ(bench.Qualifies(), qualifies) << vendor << " " << driver;
  }
}

TEST(Qualification, NeedsAFolderInSysfsAndADriverThatIsLinked) {
  SBench bench;
  EXPECT_FALSE(bench.Qualifies("/sys/block/sdb/device")) << "the folder is not there";
  bench.m_System.FailAt(OS::ECall::ReadLink, 1, EIO);
  EXPECT_TRUE(bench.Qualifies()) << "the device's own link serves the trace alone";
  bench.m_Machine.SetFile(FOLDER + "/driver", "ahci");
  EXPECT_FALSE(bench.Qualifies());
}

/// Disks of every kind on controllers that are managed and one that is not.
constexpr char ZOO[] = R"({
  "controllers": [{"name": "sata", "pci": "0000:00:1f.2", "vendor": "0x8086", "driver": "ahci"},
                  {"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"},
                  {"name": "usb", "pci": "0000:00:14.0", "vendor": "0x8086", "driver": "xhci_hcd"}],
  "disks": [
    {"name": "sda", "controller": "sata", "size": 1000000, "partitions": [{"size": 1024}]},
    {"name": "sdb", "controller": "usb", "size": 2000},
    {"name": "sdc", "controller": "sas", "size": 3001, "vendor": "LSILOGIC", "model": "Logical Volume"},
    {"name": "sdd", "controller": "sas", "size": 976773, "vendor": "SEAGATE", "model": "ST4000NM"},
    {"name": "sde", "controller": "sas", "size": 135, "vendor": "LSILOGIC", "model": "Logical Volume 3"},
    {"name": "sdaa", "controller": "sas", "size": 6000, "vendor": "SEAGATE", "model": "Logical Volume"},
    {"name": "hdc", "controller": "sata", "size": 5000}]})";

TEST(ScanDisks, AdmitsManagedDisksAndCountsTheOthers) {
  SRig rig(ZOO);
  std::string found;
  for (const auto& drive : rig.m_Plugin.m_PhysicalDrives)
    found += Text("%s %d, ", drive.m_KernelName, drive.m_DriveNumber);
  EXPECT_EQ(found, "sda 0, sdd 3, sde 4, sdaa 5, hdc 6, ") << "disks that are left out use up a number";
  EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Attribute, 9);
  rig.m_Machine.SetFile("/proc/devices", "Block devices:\n 99 mdp\n");
  EXPECT_EQ(SFound(rig.m_Plugin).m_Status, PI::OK);
  EXPECT_EQ(rig.m_Plugin.m_MdMajor, 99) << "md may be loaded later";
  EXPECT_EQ(rig.m_Plugin.Drive("sda").m_ID + 1, rig.m_Plugin.Drive("sdd").m_ID) << "but no identifier";
  EXPECT_EQ(rig.m_Plugin.Drive("sdd").m_UsableSize, 976636U);  // 976765 down to 976764, less 128
  EXPECT_EQ(rig.m_Plugin.Drive("sde").m_UsableSize, ~std::uint64_t{0} - 3) << "below the reserve it wraps";
}

TEST(ScanDisks, FilesThatSayNothingLeaveTheDefaults) {
  using CFile = std::optional<std::string>;
  // Vendor, model, rotational and state, and what is seen.
  const std::tuple<CFile, CFile, CFile, CFile, std::string> cases[] = {
      {std::nullopt, std::nullopt, std::nullopt, std::nullopt, "Linux BLKDEV 40174 40292 40095"},
      {"\t two words \nmore\n", std::string(300, 'x') + "\n", "0", "running slowly\n",
       "two words " + std::string(255, 'x') + " 40174 40293 40099"},
      {"ata\n", "ST\n", "00\n", "Running\n", "ata ST 40174 40292 40095"}};
  for (const auto& [vendor, model, rotational, state, seen] : cases) {
    SRig rig(ZOO);
    rig.m_Machine.SetFile("/sys/block/sdd/device/vendor", vendor);
    rig.m_Machine.SetFile("/sys/block/sdd/device/model", model);
    rig.m_Machine.SetFile("/sys/block/sdd/queue/rotational", rotational);
    rig.m_Machine.SetFile("/sys/block/sdd/device/state", state);
    SFound scan(rig.m_Plugin);
    const CRVXPhysicalDrive& drive = scan.Drive("sdd");
    EXPECT_EQ(Text("%s %s %d %d %d", drive.m_Vendor, drive.m_Model, drive.m_Attachment, drive.m_Medium,
                   drive.m_Status),
              seen);
  }
}

TEST(ScanDisks, EventsFollowFromTheModelsStatusAndTheDisksState) {
  const std::tuple<const char*, bool, std::optional<std::string>> cases[] = {
      // of the disk: held, and state
      {"free", false, "running\n"},
      {"held", true, "running\n"},
      {"offline", false, "offline\n"},
      {"stateless", false, std::nullopt}};
  std::string text;
  for (const auto& [change, held, state] : cases)
    for (const std::uint32_t status : {0U, 40099U, 40093U, 40095U, 40098U}) {  // of the model, 0: unknown
      SRig rig(DisksOf({1000000}));
      if (held) rig.m_Machine.Apply(R"({"hold_disk": "sda"})");
      rig.m_Machine.SetFile("/sys/block/sda/device/state", state);
      const unsigned long id = rig.m_Plugin.Drive("sda").m_ID;
      rig.m_Plugin.Drive("sda").m_Status = status;
      if (status == 0) rig.m_Plugin.m_PhysicalDrives.clear();
      SFound scan(rig.m_Plugin);
      const CRVXPhysicalDrive& drive = scan.Drive("sda");
      text += Text("%s, %d in the model: %d %d, %s identifier, %d new (%s)\n", change, status, drive.m_Status,
                   drive.m_SpareState, drive.m_ID == id ? "its" : "another", scan.m_Adapter.m_Children.size(),
                   rig.m_Plugin.TakeEventText(drive.m_ID));
    }
  ExpectGolden("scan-disks.txt", text);
}

/// A mirror md0 of sda and sdb with the spare sdc, and sde, whose controller makes volumes itself.
struct ScanArrays : public testing::Test, public SMdRig {
  ScanArrays()
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
  void Replace(const std::string& array) {
    m_Machine.Apply(R"({"stop_array": "md0"})");
    m_Machine.Apply(R"({"add_array": )" + array + "}");
  }
  std::string EventsOf(const CRVXLogicalDrive& array) { return m_Plugin.TakeEventText(array.m_ID); }
};

TEST_F(ScanArrays, WhatMdAnswersOfMembersAndChunksIsUnderstood) {
  CRVXPhysicalDrive& model = m_Plugin.Drive("sda");
  model.m_IsMemberOf = 7;
  std::string text;
  for (const int state : {0, 1, 2, 3, 4, 5, 6, 7, 8, 6 | 512})  // the last with write-mostly beside it
    for (const int slot : {0, -1}) {
      m_Own.m_Disks = {{0, {0, 8, 0, slot, state}}};
      SFound scan(m_Plugin);
      const CRVXPhysicalDrive& drive = scan.Drive("sda");
      text += Text("state %d in slot %d: status %d, activity %d, member of %d\n", state, slot, drive.m_Status,
                   drive.m_Activity, drive.m_IsMemberOf);
      EXPECT_EQ(scan.Drive("sdb").m_IsMemberOf, CRVXPhysicalDrive::NO_ARRAY);
    }
  EXPECT_EQ(Text("%d %d", model.m_Status, model.m_IsMemberOf), "40093 7") << "not the scan's to change";
  for (const int chunk : {0, 4096, 8192, 16384, 32768, 65536, 131072, 262144}) {
    m_Own.m_Array = [chunk](mdu_array_info_t& info) {
      std::tie(info.level, info.chunk_size) = std::tuple(7, chunk);
    };
    SFound scan(m_Plugin);
    text += Text("level 7 in chunks of %d: %d %d\n", chunk, scan.Array("md0").m_RaidLevel,
                 scan.Array("md0").m_StripeSize);
  }
  ExpectGolden("scan-members.txt", text);
}

TEST_F(ScanArrays, MdIsAskedForAsManyMembersAsThereAreDisksAtMost384) {
  const SFound all(m_Plugin);  // the lists below have less
  for (const std::size_t count : {0U, 3U, 400U}) {
    std::string partitions = "major minor  #blocks  name\n\n";
    for (std::size_t disk = 0; disk < count; ++disk) partitions += "8 0 1000000 sda\n";
    m_Machine.SetFile("/proc/partitions", partitions + "9 0 1000000 md0\n");
    m_Own.m_DiskQueries = 0;
    SFound scan(m_Plugin);
    EXPECT_EQ(m_Own.m_DiskQueries, std::min<std::size_t>(count, 384));
    PI::CLogicalDrive description;
    m_Plugin.GetLogicalDriveConfiguration(scan.Array("md0"), description, scan.m_Drives);
    EXPECT_EQ(m_Own.m_DiskQueries, 2 * std::min<std::size_t>(count, 384)) << "the configuration asks alike";
  }
}

TEST_F(ScanArrays, MdGetsFiveChancesToBecomeClean) {
  // First failing reading, how many fail, how many others find it dirty, ms slept, whether there are details.
  const std::tuple<std::uint64_t, std::uint64_t, int, std::uint64_t, bool> cases[] = {
      {9, 1, 0, 0, true},     {1, 2, 2, 2000, true}, {9, 1, 5, 2500, true},
      {5, 1, 9, 2500, false}, {1, 4, 9, 2500, true}, {1, 5, 0, 2500, false}};
  int left = 0;
  m_Own.m_Array = [&](mdu_array_info_t& info) { info.state = left-- > 0 ? 0 : 1; };
  for (const auto& [failing, failures, dirty, slept, details] : cases) {
    const std::uint64_t start = m_Machine.Now();
    left = dirty;
    m_System.FailAt(OS::ECall::Ioctl, failing, EIO, failures - 1);
    SFound scan(m_Plugin);
    EXPECT_EQ(m_Machine.Now() - start, slept);
    EXPECT_EQ(scan.Array("md0").m_RaidLevel, details ? PI::LEVEL_RAID1 : PI::LEVEL_CONCATENATION);
  }
  const std::uint64_t start = m_Machine.Now();
  left = 5;
  m_Plugin.m_StopRequest.Set();
  EXPECT_EQ(SFound(m_Plugin).m_Status, PI::ERR_SCAN_FAILED);
  EXPECT_EQ(m_Machine.Now(), start) << "a scan ends at once when the end is asked for";
}

constexpr char RECOVERY_12[] = "[==>...]  recovery = 12.6% (1/2) finish=1.0min speed=1K/sec";
constexpr char RESYNC_3[] = "[>.....]  resync =  3.0% (1/2) finish=1.0min speed=1K/sec";

/// Of all that the model knew of the array and md answers; without a bar, with a resync and a recovery.
TEST_F(ScanArrays, ChangesAreNoticedWithTheirEvents) {
  // State, active, working and failed disks.
  const std::tuple<int, int, int, int> answers[] = {{1, 2, 2, 0}, {1, 1, 1, 1}, {1, 1, 2, 0}, {0, 1, 1, 0},
                                                    {0, 2, 2, 0}, {2, 2, 2, 0}, {2, 1, 1, 1}, {0, 2, 1, 1}};
  CRVXLogicalDrive& model = m_Plugin.Array("md0");
  model.m_Progress = 77;
  std::string text;
  for (const auto status : {PI::STATUS_OK, PI::STATUS_DEGRADED, PI::STATUS_FAILED})
    for (const auto activity : {PI::ACTIVITY_NONE, PI::ACTIVITY_RESYNCING, PI::ACTIVITY_REBUILDING})
      for (const auto& [state, active, working, failed] : answers) {
        std::tie(model.m_Status, model.m_Activity) = std::tuple(status, activity);
        m_Own.m_Array = [answer = std::tuple(state, active, working, failed)](mdu_array_info_t& info) {
          std::tie(info.state, info.active_disks, info.working_disks, info.failed_disks) = answer;
        };
        text += Text("%d %d, md %d %d %d %d", status, activity, state, active, working, failed);
        for (const char* bar : {"", RESYNC_3, RECOVERY_12}) {
          SetMdstat({bar});
          SFound scan(m_Plugin);
          const CRVXLogicalDrive& array = scan.Array("md0");
          text += Text(" | %s%d %d, %d%s", EventsOf(model), array.m_Status, array.m_Activity,
                       array.m_Progress, scan.m_Adapter.m_ProgressWatch ? " watched" : "");
        }
        text += "\n";
      }
  ExpectGolden("scan-arrays.txt", text);
  EXPECT_FALSE(m_Plugin.m_Adapter.m_ProgressWatch) << "only the scan's own adapter is marked";
}

TEST_F(ScanArrays, SeveralBarsOfOneNameAreHandledInTurnAndNoFileEndsNothing) {
  SetMdstat({RESYNC_3, RECOVERY_12, "", "[=]  recovery = 101.0% (1/2)"});
  SFound scan(m_Plugin);
  EXPECT_EQ(EventsOf(m_Plugin.Array("md0")), "10085/2 md0 10055/2 md0 ") << "one without a bar ends nothing";
  EXPECT_EQ(scan.Array("md0").m_Activity, PI::ACTIVITY_REBUILDING);
  EXPECT_EQ(scan.Array("md0").m_Progress, 0U) << "the last one is no percentage";
  m_Machine.SetFile("/proc/mdstat", std::nullopt);
  m_Plugin.Array("md0").m_Activity = PI::ACTIVITY_RESYNCING;
  const SFound blind(m_Plugin);
  EXPECT_EQ(EventsOf(m_Plugin.Array("md0")), "") << "no end is seen";
}

TEST_F(ScanArrays, WhatChangesDuringALookIsSeen) {
  m_Machine.Apply(R"({"add_array": {"name": "md1", "level": "raid0", "members": ["sdd"]}})");
  SetMdstat({""});
  m_Own.m_Array = [&, calls = 0](mdu_array_info_t& info) mutable {
    if (++calls != 2) return;
    info.state = 0;  // the second array is waited for
    m_Machine.SetFile("/proc/mdstat", Text("md1 : active\n      1000 blocks\n%s\n", RECOVERY_12));
  };
  EXPECT_EQ(SFound(m_Plugin).Array("md1").m_Progress, 12U);

  SRigOf<CHookedSystem> rig(DisksOf({65536, 65536}));
  rig.m_Own.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
    if (call == "open /dev/sda")
      rig.m_Machine.Apply(R"({"add_array": {"name": "md2", "level": "raid0",
                                                                       "members": ["sda", "sdb"]}})");
    return {};
  };
  EXPECT_EQ(SFound(rig.m_Plugin).m_Arrays.size(), 1U) << "it came while disks were looked at";
}

TEST_F(ScanArrays, ANewArrayIsAnnouncedBeforeAllElseAndOnlyTheFirstScanBuildsDocuments) {
  const CRVXLogicalDrive model = m_Plugin.Array("md0");
  SFound known(m_Plugin);
  EXPECT_EQ(known.Array("md0").m_ID, model.m_ID);
  EXPECT_EQ(known.Array("md0").m_Configuration.GetDoc(), model.m_Configuration.GetDoc());
  EXPECT_EQ(known.m_Adapter.m_Children.size(), 0U);
  m_Own.m_Array = [](mdu_array_info_t& info) {
    std::tie(info.active_disks, info.chunk_size) = std::tuple(1, 4096);
  };
  SetMdstat({RESYNC_3});
  m_Plugin.m_LogicalDrives.clear();
  SFound fresh(m_Plugin);
  EXPECT_EQ(EventsOf(fresh.Array("md0")), "10080/2 md0 10085/2 md0 10078/4 md0 ");
  EXPECT_THAT(fresh.m_Adapter.m_Children, testing::ElementsAre(model.m_ID + 1))
      << "the known one used none up";
  EXPECT_TRUE(fresh.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(fresh.Array("md0").m_StripeSize, PI::STRIPE_4K);
  SFound first(m_Plugin, true);
  EXPECT_EQ(EventsOf(first.Array("md0")), "10085/2 md0 10078/4 md0 ") << "it was there before";
  EXPECT_FALSE(first.Array("md0").m_Configuration.IsEmpty());
  EXPECT_EQ(first.Array("md0").m_StripeSize, PI::STRIPE_64K) << "the query behind the document overwrites it";
}

TEST_F(ScanArrays, OfArraysShortOfMembersALinearOneIsAnnouncedAsFineOnEveryPass) {
  const std::tuple<const char*, std::uint32_t, const char*> steps[] = {
      {"raid0", 40093, ""}, {"linear", 40094, "10078/4 md0 "}, {"linear", 40094, "10082/2 md0 "}};
  for (const char* disk : {"sdb", "sdc"}) m_Plugin.Drive(disk).m_Status = PI::STATUS_READY;
  CRVXLogicalDrive& model = m_Plugin.Array("md0");
  for (const auto& [level, status, events] : steps) {
    Replace(Text(R"({"name": "md0", "level": "%s", "members": ["sda", "sde"]})", level));
    SFound scan(m_Plugin);
    EXPECT_EQ(scan.Array("md0").m_Status, status);
    EXPECT_THAT(scan.Array("md0").m_Children, testing::ElementsAre(scan.Drive("sda").m_ID));
    EXPECT_EQ(EventsOf(model), events);
    model.m_Status = status;
  }
  model.m_Status = PI::STATUS_OK;
  m_Own.m_Array = [](mdu_array_info_t& info) { info.active_disks = info.working_disks = 1; };
  const SFound scan(m_Plugin);
  EXPECT_EQ(EventsOf(model), "10078/4 md0 10078/4 md0 ") << "short by md's own account too: by both rules";
}

}  // namespace
