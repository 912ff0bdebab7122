// Which disks are managed, and the scan's disk pass.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"
#include "tests/support/Scan.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

const std::string FOLDER = "/sys/devices/pci0000:00/0000:00:1f.2";
constexpr char UDEVADM[] = "udevadm info -q all -n /dev/sda";

/// One disk on one controller.
struct SBench : public SBareRig<> {
  explicit SBench(const std::string& vendor = "0x8086", const std::string& driver = "ahci")
      : SBareRig(R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "vendor": ")" + vendor +
                 R"(", "driver": ")" + driver +
                 R"("}], "disks": [{"name": "sda", "controller": "c", "size": 1048576}]})") {}
  bool Qualifies() { return m_Plugin.checkpd("/sys/block/sda/device", "sda"); }
};

TEST(Qualification, TakesTwoVendorsAndFiveDriversAndNothingElse) {
  const struct {
    const char* m_Vendor;
    const char* m_Driver;
    bool m_Qualifies;
  } cases[] = {{"0x8086", "ata_piix", true},       {"0x1000", "mptsas", true},   {"0x1000", "mpt2sas", true},
               {"0x8086", "mpt3sas", true},        {"0x1000", "ahci", true},     {"0x1022", "ahci", false},
               {"0x80861", "ahci", false},         {"8086", "ahci", false},      {"0x8086", "AHCI", false},
               {"0x8086", "ahci_platform", false}, {"0x8086", "xhci_hcd", false}};
  for (const auto& entry : cases)
    EXPECT_EQ(SBench(entry.m_Vendor, entry.m_Driver).Qualifies(), entry.m_Qualifies)
        << entry.m_Vendor << " " << entry.m_Driver;
}

TEST(Qualification, TheVendorFileLosesItsLastCharacterWhateverItIs) {
  const std::pair<std::optional<std::string>, bool> cases[] = {
      {"0x8086", false},                                  // "0x808" is left
      {"0x80867", true},     {"0x8086\n0x1022\n", true},  // the first line
      {"0x8086\r\n", false}, {"", false},
      {std::nullopt, false}};
  for (const auto& [text, qualifies] : cases) {
    SBench bench;
    bench.m_Machine.SetFile(FOLDER + "/vendor", text);
    EXPECT_EQ(bench.Qualifies(), qualifies) << text.value_or("no file");
  }
}

TEST(Qualification, EveryMissingPieceDisqualifies) {
  using ECall = CFaultyMachine::ECall;
  const std::pair<const char*, std::function<void(SBench&)>> cases[] = {
      {"a driver file that is no link", [](SBench& b) { b.m_Machine.SetFile(FOLDER + "/driver", "ahci"); }},
      {"udevadm is not there", [](SBench& b) { b.m_Machine.SetFile("/usr/bin/udevadm", std::nullopt); }},
      {"no device path", [](SBench& b) { b.m_Machine.SetOutput(UDEVADM, "N: sda\n"); }},
      {"the folder cannot be opened", [](SBench& b) { b.m_Door.FailAt(ECall::Open, 1, EACCES); }},
      {"the vendor cannot be read", [](SBench& b) { b.m_Door.FailAt(ECall::Read, 1, EIO); }},
  };
  for (const auto& [what, change] : cases) {
    SBench bench;
    ASSERT_TRUE(bench.Qualifies());
    change(bench);
    EXPECT_FALSE(bench.Qualifies()) << what;
  }
  SBench bench;
  bench.m_Door.FailAt(ECall::ReadLink, 1, EIO);
  EXPECT_TRUE(bench.Qualifies()) << "the device's own link serves the trace alone";
}

/// Disks of every kind on controllers that are managed and one that is not.
constexpr char ZOO[] = R"({
  "controllers": [
    {"name": "sata", "pci": "0000:00:1f.2", "vendor": "0x8086", "driver": "ahci"},
    {"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"},
    {"name": "usb", "pci": "0000:00:14.0", "vendor": "0x8086", "driver": "xhci_hcd"}
  ],
  "disks": [
    {"name": "sda", "controller": "sata", "size": 1000000, "model": "WDC WD10EZEX-08M",
     "partitions": [{"size": 1024}]},
    {"name": "sdb", "controller": "usb", "size": 2000},
    {"name": "sdc", "controller": "sas", "size": 3001, "vendor": "LSILOGIC", "model": "Logical Volume"},
    {"name": "sdd", "controller": "sas", "size": 976773, "vendor": "SEAGATE", "model": "ST4000NM"},
    {"name": "sde", "controller": "sas", "size": 135, "vendor": "LSILOGIC", "model": "Other"},
    {"name": "sdaa", "controller": "sas", "size": 6000, "vendor": "SEAGATE", "model": "Logical Volume"},
    {"name": "hdc", "controller": "sata", "size": 5000, "state": "offline"}
  ]
})";

TEST(ScanDisks, AdmitsManagedDisksAndCountsTheOthers) {
  SRig rig(ZOO);
  std::string found;
  for (const auto& drive : rig.m_Plugin.m_PhysicalDrives)
    found += drive.m_KernelName + " " + std::to_string(drive.m_DriveNumber) + ", ";
  EXPECT_EQ(found, "sda 0, sdd 3, sde 4, sdaa 5, hdc 6, ") << "disks that are left out use up a number";
  EXPECT_EQ(rig.m_Plugin.Drive("sda").m_ID + 1, rig.m_Plugin.Drive("sdd").m_ID) << "but no identifier";
  EXPECT_THAT(rig.m_Plugin.TakeEventCodes(), ElementsAre(PI::EVT_READY_DRIVE_OFFLINE))
      << "the first scan reports the offline disk alone";

  const CRVXPhysicalDrive& ata = rig.m_Plugin.Drive("sda");
  EXPECT_EQ(ata.m_Attachment, PI::ATTACHMENT_ATA);
  EXPECT_NE(ata.m_Vendor, "ATA") << "the maker stands in the model";
  EXPECT_EQ(ata.m_DisplayName, ata.m_Vendor + " " + ata.m_Model + " (sda 8:0)");
  EXPECT_EQ(ata.m_DeviceKey, "SoftRAID0&BLKDEV:Major=8&Minor=0");
  const CRVXPhysicalDrive& sas = rig.m_Plugin.Drive("sdd");
  EXPECT_EQ(sas.m_Size, 976773U);
  EXPECT_EQ(sas.m_UsableSize, 976636U);  // 976765 down to 976764, less 128
  EXPECT_EQ(rig.m_Plugin.Drive("sde").m_UsableSize, ~std::uint64_t{0} - 3) << "sizes below the reserve wrap";
}

TEST(ScanDisks, FilesThatSayNothingLeaveTheDefaults) {
  const std::string name = "SEAGATE ST4000NM (sdd 8:48)";
  const struct {
    const char* m_File;
    std::optional<std::string> m_Text;
    std::string m_Seen;  ///< display name, attachment, medium, status
  } cases[] = {
      {"device/vendor", std::nullopt, "Linux ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/vendor", "\t two words \nmore\n", "two words ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/vendor", "ata\n", "ata ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/model", std::nullopt, "SEAGATE BLKDEV (sdd 8:48) 40174 40292 40099"},
      {"device/model", std::string(300, 'x') + "\n",
       "SEAGATE " + std::string(255, 'x') + " (sdd 8:48) 40174 40292 40099"},
      {"queue/rotational", "0", name + " 40174 40293 40099"},
      {"queue/rotational", "00\n", name + " 40174 40292 40099"},
      {"device/state", "running slowly\n", name + " 40174 40292 40099"},
      {"device/state", "Running\n", name + " 40174 40292 40095"},
      {"device/state", std::nullopt, name + " 40174 40292 40095"},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(std::string(entry.m_File) + ": " + entry.m_Text.value_or("no file"));
    SRig changed(ZOO);
    changed.m_Machine.SetFile(std::string("/sys/block/sdd/") + entry.m_File, entry.m_Text);
    SScanned scan(changed.m_Plugin);
    const CRVXPhysicalDrive& drive = scan.Drive("sdd");
    EXPECT_EQ(Text("%s %d %d %d", drive.m_DisplayName, drive.m_Attachment, drive.m_Medium, drive.m_Status),
              entry.m_Seen);
  }
}

const std::string ONE = DisksOf({1000000});

TEST(ScanDisks, EventsFollowFromTheModelsStatusAndTheDisksState) {
  constexpr std::uint32_t UNKNOWN = 0;
  constexpr std::uint32_t STATUSES[] = {UNKNOWN, PI::STATUS_READY, PI::STATUS_OK, PI::STATUS_FAILED,
                                        PI::STATUS_SPARE};
  const struct {
    const char* m_Change;  ///< what happened to the machine
    std::uint32_t m_Status;
    std::uint32_t m_SpareState;
    std::string m_Events[std::size(STATUSES)];  ///< codes by the model's status
    unsigned int m_Severity;
  } cases[] = {
      {R"({"release_disk": "sda"})", 40099, 40262, {"10032 ", "", "10470 ", "10455 ", ""}, PI::SEV_DEFAULT},
      {R"({"hold_disk": "sda"})",
       40093,
       40263,
       {"10032 10454 ", "10454 ", "", "10459 ", ""},
       PI::SEV_DEFAULT},
      {R"({"disk_state": {"sda": "offline"}})",
       40095,
       40262,
       {"10032 10451 ", "10451 ", "10471 ", "", ""},
       PI::SEV_ERROR}};
  for (const auto& entry : cases)
    for (std::size_t at = 0; at < std::size(STATUSES); ++at) {
      SCOPED_TRACE(std::string(entry.m_Change) + ", model " + std::to_string(STATUSES[at]));
      SRig rig(ONE);
      rig.m_Machine.Apply(entry.m_Change);
      const unsigned long id = rig.m_Plugin.Drive("sda").m_ID;
      rig.m_Plugin.Drive("sda").m_Status = STATUSES[at];
      if (STATUSES[at] == UNKNOWN) rig.m_Plugin.m_PhysicalDrives.clear();
      SScanned scan(rig.m_Plugin);
      const CRVXPhysicalDrive& drive = scan.Drive("sda");
      EXPECT_EQ(drive.m_Status, entry.m_Status);
      EXPECT_EQ(drive.m_SpareState, entry.m_SpareState);
      EXPECT_EQ(drive.m_ID == id, STATUSES[at] != UNKNOWN) << "a known disk keeps its identifier";
      EXPECT_EQ(scan.m_Adapter.m_Children.size(), STATUSES[at] == UNKNOWN ? 1U : 0U);
      std::string codes;
      for (const PI::CEvent& event : rig.m_Plugin.TakeEvents()) {
        codes += std::to_string(event.m_Code) + " ";
        const bool added = event.m_Code == PI::EVT_PHYSICALDRIVE_ADDED;
        EXPECT_EQ(event.m_Severity, added ? unsigned{PI::SEV_DEFAULT} : entry.m_Severity);
        EXPECT_EQ(event.m_ObjectID, drive.m_ID);
        EXPECT_EQ(event.m_SourceID, rig.m_Plugin.m_Adapter.m_ID);
        EXPECT_EQ(event.m_Time, rig.m_Machine.Now());
        EXPECT_EQ(event.m_PlaceHolder2, added ? "sda 8:0" : "sda");
      }
      EXPECT_EQ(codes, entry.m_Events[at]);
    }
}

TEST(ScanDisks, ADiskWithoutAStateFileCountsAsNewAndTheFirstScanReportsNoNewAndNoBusyDisk) {
  SRig rig(ONE);
  rig.m_Machine.SetFile("/proc/partitions", std::nullopt);
  EXPECT_EQ(SScanned(rig.m_Plugin).m_Status, PI::OK) << "nothing to be seen is no failure";
  rig.m_Machine.SetFile("/proc/partitions", "major minor  #blocks  name\n\n   8        0    1000000 sda\n");
  rig.m_Plugin.Drive("sda").m_Status = PI::STATUS_OK;
  rig.m_Machine.SetFile("/sys/block/sda/device/state", std::nullopt);
  SScanned stateless(rig.m_Plugin);
  const auto events = rig.m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 2U);
  EXPECT_EQ(events[0].m_Code, PI::EVT_PHYSICALDRIVE_ADDED);
  EXPECT_EQ(events[1].m_Code, PI::EVT_READY_DRIVE_OFFLINE);
  // It counts as new, but under the identifier that front ends can look up.
  for (const unsigned long id : {stateless.Drive("sda").m_ID, events[0].m_ObjectID, events[1].m_ObjectID})
    EXPECT_EQ(id, rig.m_Plugin.Drive("sda").m_ID);

  rig.m_Machine.SetFile("/sys/block/sda/device/state", "running\n");
  rig.m_Machine.Apply(R"({"hold_disk": "sda"})");
  rig.m_Plugin.m_PhysicalDrives.clear();
  const SScanned first(rig.m_Plugin, true);
  EXPECT_THAT(rig.m_Plugin.TakeEventCodes(), IsEmpty());
  EXPECT_NE(first.m_Adapter.m_ID, rig.m_Plugin.m_Adapter.m_ID);
}

}  // namespace
