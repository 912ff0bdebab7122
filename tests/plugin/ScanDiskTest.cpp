// Which disks are managed, and the scan's disk pass.

#include "tests/support/Arrays.h"
#include "tests/support/Scan.h"

using namespace NAMESPACE_piRVX;

namespace {

const std::string FOLDER = "/sys/devices/pci0000:00/0000:00:1f.2";
constexpr char UDEVADM[] = "udevadm info -q all -n /dev/sda";

/// One disk on one controller.
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
  const std::tuple<std::optional<std::string>, const char*, bool> cases[] = {
      {"0x8086\n", "ata_piix", true},  {"0x1000\n", "mptsas", true},
      {"0x1000\n", "mpt2sas", true},   {"0x8086\n", "mpt3sas", true},
      {"0x1000.x\n", "ahci.x", true},  {"0x1022\n", "ahci", false},
      {"0x80861\n", "ahci", false},    {"8086\n", "ahci", false},
      {"0x8086\n", "AHCI", false},     {"0x8086\n", "ahci_platform", false},
      {"0x8086\n", "xhci_hcd", false}, {"0x8086\n0x1022\n", "ahci", true},
      {"0x80867", "ahci", true},       {"0x8086", "ahci", false},
      {"0x8086\r\n", "ahci", false},   {"", "ahci", false},
      {std::nullopt, "ahci", false}};
  for (const auto& [vendor, driver, qualifies] : cases) {
    SBench bench(driver);
    bench.m_Machine.SetFile(FOLDER + "/vendor", vendor);
    EXPECT_EQ(bench.Qualifies(), qualifies) << vendor.value_or("no file") << " " << driver;
  }
}

TEST(Qualification, EveryMissingPieceDisqualifies) {
  using ECall = CFaultyMachine::ECall;
  const std::pair<const char*, std::function<void(SBench&)>> cases[] = {
      {"a driver file that is no link", [](SBench& b) { b.m_Machine.SetFile(FOLDER + "/driver", "ahci"); }},
      {"udevadm is not there", [](SBench& b) { b.m_Machine.SetFile("/usr/bin/udevadm", std::nullopt); }},
      {"no device path", [](SBench& b) { b.m_Machine.SetOutput(UDEVADM, "N: sda\n"); }},
      {"the vendor cannot be read", [](SBench& b) { b.m_Door.FailAt(ECall::Read, 1, EIO); }}};
  for (const auto& [what, change] : cases) {
    SBench bench;
    ASSERT_TRUE(bench.Qualifies());
    EXPECT_FALSE(bench.Qualifies("/sys/block/sdb/device")) << "the folder is not there";
    change(bench);
    EXPECT_FALSE(bench.Qualifies()) << what;
  }
  SBench bench;
  bench.m_Door.FailAt(ECall::ReadLink, 1, EIO);
  EXPECT_TRUE(bench.Qualifies()) << "the device's own link serves the trace alone";
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
  EXPECT_EQ(rig.m_Plugin.Drive("sda").m_ID + 1, rig.m_Plugin.Drive("sdd").m_ID) << "but no identifier";
  EXPECT_EQ(rig.m_Plugin.Drive("sdd").m_UsableSize, 976636U);  // 976765 down to 976764, less 128
  EXPECT_EQ(rig.m_Plugin.Drive("sde").m_UsableSize, ~std::uint64_t{0} - 3) << "below the reserve it wraps";
}

TEST(ScanDisks, FilesThatSayNothingLeaveTheDefaults) {
  // A file, its text, and the disk's vendor and model, attachment, medium and status.
  const std::tuple<const char*, std::optional<std::string>, std::string> cases[] = {
      {"device/vendor", std::nullopt, "Linux ST4000NM 40174 40292 40099"},
      {"device/vendor", "\t two words \nmore\n", "two words ST4000NM 40174 40292 40099"},
      {"device/vendor", "ata\n", "ata ST4000NM 40174 40292 40099"},
      {"device/model", std::nullopt, "SEAGATE BLKDEV 40174 40292 40099"},
      {"device/model", std::string(300, 'x') + "\n",
       "SEAGATE " + std::string(255, 'x') + " 40174 40292 40099"},
      {"queue/rotational", "0", "SEAGATE ST4000NM 40174 40293 40099"},
      {"queue/rotational", "00\n", "SEAGATE ST4000NM 40174 40292 40099"},
      {"device/state", "running slowly\n", "SEAGATE ST4000NM 40174 40292 40099"},
      {"device/state", "Running\n", "SEAGATE ST4000NM 40174 40292 40095"},
      {"device/state", std::nullopt, "SEAGATE ST4000NM 40174 40292 40095"}};
  for (const auto& [file, text, seen] : cases) {
    SRig rig(ZOO);
    rig.m_Machine.SetFile(std::string("/sys/block/sdd/") + file, text);
    SScanned scan(rig.m_Plugin);
    const CRVXPhysicalDrive& drive = scan.Drive("sdd");
    EXPECT_EQ(Text("%s %s %d %d %d", drive.m_Vendor, drive.m_Model, drive.m_Attachment, drive.m_Medium,
                   drive.m_Status),
              seen)
        << file;
  }
}

const std::string ONE = DisksOf({1000000});

TEST(ScanDisks, EventsFollowFromTheModelsStatusAndTheDisksState) {
  const std::uint32_t statuses[] = {0, PI::STATUS_READY, PI::STATUS_OK, PI::STATUS_FAILED, PI::STATUS_SPARE};
  // What happened to the machine, the disk's states now, and the events by its status in the model, 0:
  // unknown.
  const std::tuple<const char*, const char*, std::array<const char*, std::size(statuses)>> cases[] = {
      {R"({"release_disk": "sda"})",
       "40099 40262",
       {"10032/2 sda 8:0 ", "", "10470/2 sda ", "10455/2 sda ", ""}},
      {R"({"hold_disk": "sda"})",
       "40093 40263",
       {"10032/2 sda 8:0 10454/2 sda ", "10454/2 sda ", "", "10459/2 sda ", ""}},
      {R"({"disk_state": {"sda": "offline"}})",
       "40095 40262",
       {"10032/2 sda 8:0 10451/4 sda ", "10451/4 sda ", "10471/4 sda ", "", ""}}};
  for (const auto& [change, states, events] : cases)
    for (std::size_t at = 0; at < std::size(statuses); ++at) {
      SCOPED_TRACE(Text("%s, model %d", change, statuses[at]));
      SRig rig(ONE);
      rig.m_Machine.Apply(change);
      const unsigned long id = rig.m_Plugin.Drive("sda").m_ID;
      rig.m_Plugin.Drive("sda").m_Status = statuses[at];
      if (at == 0) rig.m_Plugin.m_PhysicalDrives.clear();
      SScanned scan(rig.m_Plugin);
      const CRVXPhysicalDrive& drive = scan.Drive("sda");
      EXPECT_EQ(Text("%d %d", drive.m_Status, drive.m_SpareState), states);
      EXPECT_EQ(drive.m_ID == id, at != 0) << "a known disk keeps its identifier";
      EXPECT_EQ(scan.m_Adapter.m_Children.size(), at == 0 ? 1U : 0U);
      EXPECT_EQ(rig.m_Plugin.TakeEventText(drive.m_ID), events[at]);
    }
}

TEST(ScanDisks, TheFirstScanReportsNoNewAndNoBusyDisk) {
  SRig rig(ONE);
  rig.m_Machine.SetFile("/proc/devices", "Block devices:\n 99 mdp\n");
  rig.m_Machine.SetFile("/proc/partitions", std::nullopt);
  EXPECT_EQ(SScanned(rig.m_Plugin).m_Status, PI::OK) << "nothing to be seen is no failure";
  EXPECT_EQ(rig.m_Plugin.m_MdMajor, 99);
  rig.m_Machine.SetFile("/proc/partitions", "major minor  #blocks  name\n\n   8        0    1000000 sda\n");
  rig.m_Machine.Apply(R"({"hold_disk": "sda"})");
  rig.m_Plugin.m_PhysicalDrives.clear();
  const SScanned first(rig.m_Plugin, true);
  EXPECT_EQ(rig.m_Plugin.TakeEventText(0), "");
  EXPECT_NE(first.m_Adapter.m_ID, rig.m_Plugin.m_Adapter.m_ID);
}

}  // namespace
