// The scan's disk pass.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Scan.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

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
    {"name": "sde", "controller": "sas", "size": 135, "vendor": "LSILOGIC", "model": "Other", "medium": "solid-state"},
    {"name": "sdaa", "controller": "sas", "size": 6000, "vendor": "SEAGATE", "model": "Logical Volume"},
    {"name": "hdc", "controller": "sata", "size": 5000, "state": "offline"},
    {"name": "sdf", "controller": "sas", "size": 7000, "held": true}
  ]
})";

std::vector<std::string> Names(const std::vector<CRVXPhysicalDrive>& drives) {
  std::vector<std::string> names;
  for (const auto& drive : drives) names.push_back(drive.m_KernelName);
  return names;
}

TEST(ScanDisks, AdmitsManagedDisksAndCountsTheOthers) {
  SRig rig(ZOO);
  EXPECT_THAT(Names(rig.m_Plugin.m_PhysicalDrives), ElementsAre("sda", "sdd", "sde", "sdaa", "hdc", "sdf"));
  std::vector<unsigned int> numbers;
  for (const auto& drive : rig.m_Plugin.m_PhysicalDrives) numbers.push_back(drive.m_DriveNumber);
  EXPECT_THAT(numbers, ElementsAre(0U, 3U, 4U, 5U, 6U, 7U)) << "disks that are left out use up a number";
  EXPECT_EQ(rig.m_Plugin.Drive("sda").m_ID + 1, rig.m_Plugin.Drive("sdd").m_ID) << "but no identifier";
  EXPECT_THAT(rig.m_Plugin.TakeEventCodes(), ElementsAre(PI::EVT_READY_DRIVE_OFFLINE))
      << "the first scan reports the offline disk alone";
  const CRVXAdapter& adapter = rig.m_Plugin.m_Adapter;
  EXPECT_EQ(adapter.m_Name, "Multiple Devices");
  EXPECT_EQ(adapter.m_DeviceKeyPrefix, "SoftRAID0");
  EXPECT_EQ(adapter.m_MaxPhysicalDrives, 1024U);
  EXPECT_EQ(adapter.m_MaxLogicalDrives, 256U);
  EXPECT_EQ(adapter.m_Status, 40024U);
  EXPECT_EQ(adapter.m_Attribute, 9);
  EXPECT_FALSE(adapter.m_ProgressWatch);
  EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
}

TEST(ScanDisks, DescribesADisk) {
  SRig rig(ZOO);
  const CRVXPhysicalDrive& ata = rig.m_Plugin.Drive("sda");
  EXPECT_EQ(ata.m_Kind, PI::OBJ_PHYSICAL_DRIVE);
  EXPECT_EQ(ata.m_Attachment, PI::ATTACHMENT_ATA);
  EXPECT_NE(ata.m_Vendor, "ATA") << "the maker stands in the model";
  EXPECT_EQ(ata.m_DisplayName, ata.m_Vendor + " " + ata.m_Model + " (sda 8:0)");
  EXPECT_EQ(ata.m_DeviceKey, "SoftRAID0&BLKDEV:Major=8&Minor=0");
  EXPECT_EQ(ata.m_IsMemberOf, -1);
  EXPECT_EQ(ata.m_Activity, PI::ACTIVITY_NONE);
  const CRVXPhysicalDrive& sas = rig.m_Plugin.Drive("sdd");
  EXPECT_EQ(sas.m_DisplayName, "SEAGATE ST4000NM (sdd 8:48)");
  EXPECT_EQ(sas.m_Attachment, PI::ATTACHMENT_OTHER);
  EXPECT_EQ(sas.m_Medium, PI::MEDIUM_ROTATING);
  EXPECT_EQ(sas.m_Size, 976773U);
  EXPECT_EQ(sas.m_UsableSize, 976636U);  // 976765 down to 976764, less 128
  EXPECT_EQ(rig.m_Plugin.Drive("sde").m_Medium, PI::MEDIUM_SOLID_STATE);
  EXPECT_EQ(rig.m_Plugin.Drive("sde").m_UsableSize, ~std::uint64_t{0} - 3) << "sizes below the reserve wrap";
}

TEST(ScanDisks, FilesThatSayNothingLeaveTheDefaults) {
  const struct {
    const char* m_File;
    std::optional<std::string> m_Text;
    std::string m_Seen;  ///< display name, attachment, medium, status
  } cases[] = {
      {"device/vendor", std::nullopt, "Linux ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/model", std::nullopt, "SEAGATE BLKDEV (sdd 8:48) 40174 40292 40099"},
      {"device/vendor", "\t two words \nmore\n", "two words ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/vendor", "ATA", "ST4000NM (sdd 8:48) 40002 40292 40099"},
      {"device/vendor", "ata\n", "ata ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/model", "", "SEAGATE  (sdd 8:48) 40174 40292 40099"},
      {"device/model", std::string(300, 'x') + "\n",
       "SEAGATE " + std::string(255, 'x') + " (sdd 8:48) 40174 40292 40099"},
      {"queue/rotational", std::nullopt, "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"queue/rotational", "0", "SEAGATE ST4000NM (sdd 8:48) 40174 40293 40099"},
      {"queue/rotational", "00\n", "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/state", "running", "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/state", "running slowly\n", "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40099"},
      {"device/state", "runnin\n", "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40095"},
      {"device/state", "Running\n", "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40095"},
      {"device/state", "", "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40095"},
      {"device/state", std::nullopt, "SEAGATE ST4000NM (sdd 8:48) 40174 40292 40095"},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(std::string(entry.m_File) + ": " + entry.m_Text.value_or("no file"));
    SRig rig(ZOO);
    rig.m_Machine.SetFile(std::string("/sys/block/sdd/") + entry.m_File, entry.m_Text);
    SScanned scan(rig.m_Plugin);
    const CRVXPhysicalDrive& drive = scan.Drive("sdd");
    std::string seen = drive.m_DisplayName + " " + std::to_string(drive.m_Attachment) + " " +
                       std::to_string(drive.m_Medium) + " " + std::to_string(drive.m_Status);
    EXPECT_THAT(seen, testing::EndsWith(entry.m_Seen));
  }
}

TEST(ScanDisks, WithoutPartitionsThereIsOnlyTheAdapter) {
  for (const std::optional<std::string>& text :
       {std::optional<std::string>(), std::optional<std::string>(""), std::optional<std::string>("garbage"),
        std::optional<std::string>("major minor  #blocks  name\n\n   8  sda\n")}) {
    SRig rig(ZOO);
    rig.m_Machine.SetFile("/proc/partitions", text);
    const SScanned scan(rig.m_Plugin);
    EXPECT_EQ(scan.m_Status, PI::OK);
    EXPECT_THAT(scan.m_Drives, IsEmpty());
    EXPECT_EQ(scan.m_Adapter.m_ID, rig.m_Plugin.m_Adapter.m_ID);
    EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 6U) << "the model is the merge's business";
  }
}

/// One disk, whose state the tests choose.
constexpr char ONE[] = R"({
  "controllers": [{"name": "sas", "pci": "0000:03:00.0", "vendor": "0x1000", "driver": "mpt2sas"}],
  "disks": [{"name": "sda", "controller": "sas", "size": 1000000}]
})";

TEST(ScanDisks, EventsFollowFromTheModelsStatusAndTheDisksState) {
  constexpr std::uint32_t UNKNOWN = 0;
  constexpr std::uint32_t STATUSES[] = {UNKNOWN,           PI::STATUS_READY,      PI::STATUS_OK,
                                        PI::STATUS_FAILED, PI::STATUS_REBUILDING, PI::STATUS_SPARE};
  const struct {
    const char* m_Change;  ///< what happened to the machine
    std::uint32_t m_Status;
    std::uint32_t m_SpareState;
    std::vector<unsigned int> m_Events[std::size(STATUSES)];  ///< by the model's status
    unsigned int m_Severity;
  } cases[] = {
      {R"({"release_disk": "sda"})", 40099, 40262, {{10032}, {}, {10470}, {10455}, {}, {}}, PI::SEV_DEFAULT},
      {R"({"hold_disk": "sda"})",
       40093,
       40263,
       {{10032, 10454}, {10454}, {}, {10459}, {}, {}},
       PI::SEV_DEFAULT},
      {R"({"disk_state": {"sda": "offline"}})",
       40095,
       40262,
       {{10032, 10451}, {10451}, {10471}, {}, {}, {}},
       4},
  };
  for (const auto& entry : cases)
    for (std::size_t at = 0; at < std::size(STATUSES); ++at) {
      SCOPED_TRACE(std::string(entry.m_Change) + ", model " + std::to_string(STATUSES[at]));
      SRig rig(ONE);
      rig.m_Machine.Apply(entry.m_Change);
      const unsigned long id = rig.m_Plugin.Drive("sda").m_ID;
      if (STATUSES[at] == UNKNOWN)
        rig.m_Plugin.m_PhysicalDrives.clear();
      else
        rig.m_Plugin.Drive("sda").m_Status = STATUSES[at];
      SScanned scan(rig.m_Plugin);
      const CRVXPhysicalDrive& drive = scan.Drive("sda");
      EXPECT_EQ(drive.m_Status, entry.m_Status);
      EXPECT_EQ(drive.m_SpareState, entry.m_SpareState);
      EXPECT_EQ(drive.m_ID == id, STATUSES[at] != UNKNOWN) << "a known disk keeps its identifier";
      EXPECT_EQ(scan.m_Adapter.m_Children.size(), STATUSES[at] == UNKNOWN ? 1U : 0U);
      std::vector<unsigned int> codes;
      for (const PI::CEvent& event : rig.m_Plugin.TakeEvents()) {
        codes.push_back(event.m_Code);
        const bool added = event.m_Code == PI::EVT_PHYSICALDRIVE_ADDED;
        EXPECT_EQ(event.m_Severity, added ? unsigned{PI::SEV_DEFAULT} : entry.m_Severity);
        EXPECT_EQ(event.m_ObjectID, drive.m_ID);
        EXPECT_EQ(event.m_SourceID, rig.m_Plugin.m_Adapter.m_ID);
        EXPECT_EQ(event.m_Time, rig.m_Machine.Now());
        EXPECT_EQ(event.m_PlaceHolder1, "");
        EXPECT_EQ(event.m_PlaceHolder2, added ? "sda 8:0" : "sda");
      }
      EXPECT_EQ(codes, entry.m_Events[at]);
    }
}

TEST(ScanDisks, TheFirstScanReportsNoNewAndNoBusyDisk) {
  SRig rig(ONE);
  rig.m_Machine.Apply(R"({"hold_disk": "sda"})");
  rig.m_Plugin.m_PhysicalDrives.clear();
  const SScanned scan(rig.m_Plugin, true);
  EXPECT_THAT(rig.m_Plugin.TakeEventCodes(), IsEmpty());
  EXPECT_NE(scan.m_Adapter.m_ID, rig.m_Plugin.m_Adapter.m_ID);
}

TEST(ScanDisks, ADiskWithoutAStateFileCountsAsNew) {
  SRig rig(ONE);
  rig.m_Plugin.Drive("sda").m_Status = PI::STATUS_OK;
  rig.m_Machine.SetFile("/sys/block/sda/device/state", std::nullopt);
  SScanned scan(rig.m_Plugin);
  EXPECT_THAT(rig.m_Plugin.TakeEventCodes(),
              ElementsAre(PI::EVT_PHYSICALDRIVE_ADDED, PI::EVT_READY_DRIVE_OFFLINE));
  EXPECT_NE(scan.Drive("sda").m_ID, rig.m_Plugin.Drive("sda").m_ID);
}

TEST(ScanDisks, TheMajorOfPartitionableArraysFollowsTheKernel) {
  SRig rig(ONE);
  EXPECT_EQ(rig.m_Plugin.m_MdMajor, 253);
  for (const auto& [text, major] :
       {std::pair<std::optional<std::string>, int>{"Block devices:\n241 mdp\n", 241},
        {"Block devices:\n  9 md\n", -1},
        {std::nullopt, -1}}) {
    rig.m_Machine.SetFile("/proc/devices", text);
    const SScanned scan(rig.m_Plugin);
    EXPECT_EQ(rig.m_Plugin.m_MdMajor, major);
  }
}

}  // namespace
