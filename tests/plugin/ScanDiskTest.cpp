// Which disks are managed, and the scan's disk pass.

#include "tests/support/Arrays.h"
#include "tests/support/Golden.h"

using namespace NAMESPACE_piRVX;

namespace {

const std::string FOLDER = "/sys/devices/pci0000:00/0000:00:1f.2";

struct SBench : public SBareRig<> {
  explicit SBench(const std::string& driver = "ahci")
      : SBareRig(Text(R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "driver": "%s"}],
                          "disks": [{"name": "sda", "controller": "c", "size": 1048576}]})",
                      driver)) {}
  bool Qualifies(const std::string& folder = "/sys/block/sda/device") {
    return m_Plugin.checkpd(folder, "sda");
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
  bench.m_Door.FailAt(CFaultyMachine::ECall::ReadLink, 1, EIO);
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
  EXPECT_EQ(SScanned(rig.m_Plugin).m_Status, PI::OK);
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
    SScanned scan(rig.m_Plugin);
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
      SScanned scan(rig.m_Plugin);
      const CRVXPhysicalDrive& drive = scan.Drive("sda");
      text += Text("%s, %d in the model: %d %d, %s identifier, %d new (%s)\n", change, status, drive.m_Status,
                   drive.m_SpareState, drive.m_ID == id ? "its" : "another", scan.m_Adapter.m_Children.size(),
                   rig.m_Plugin.TakeEventText(drive.m_ID));
    }
  ExpectGolden("scan-disks.txt", text);
}

}  // namespace
