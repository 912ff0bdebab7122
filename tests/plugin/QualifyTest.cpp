// Which disks are managed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;

namespace {

constexpr char FOLDER[] = "/sys/devices/pci0000:00/0000:00:1f.2";
constexpr char UDEVADM[] = "udevadm info -q all -n /dev/sda";

/// One disk on one controller.
std::string Machine(const std::string& vendor, const std::string& driver) {
  return R"({"controllers": [{"name": "c", "pci": "0000:00:1f.2", "vendor": ")" + vendor +
         R"(", "driver": ")" + driver +
         R"("}], "disks": [{"name": "sda", "controller": "c", "size": 1048576}]})";
}

struct SBench {
  explicit SBench(const std::string& description) : m_Machine(description) {}
  bool Qualifies() { return m_Plugin.checkpd("/sys/block/sda/device", "sda"); }

  CConfigFolder m_Config;
  CSimulatedMachine m_Machine;
  CFaultyMachine m_Door{m_Machine};
  CTestInstance m_Plugin{m_Door};
};

TEST(Qualification, TakesTwoVendorsAndFiveDriversAndNothingElse) {
  const struct {
    const char* m_Vendor;
    const char* m_Driver;
    bool m_Qualifies;
  } cases[] = {
      {"0x8086", "ahci", true},           {"0x8086", "ata_piix", true},      {"0x1000", "mptsas", true},
      {"0x1000", "mpt2sas", true},        {"0x1000", "mpt3sas", true},       {"0x1000", "ahci", true},
      {"0x8086", "mpt3sas", true},        {"0x1022", "ahci", false},         {"0x8086", "AHCI", false},
      {"0x8086", "ahci_platform", false}, {"0x1000", "megaraid_sas", false}, {"0x1af4", "virtio-pci", false},
      {"0x8086", "xhci_hcd", false},      {"8086", "ahci", false},           {"0X8086", "ahci", false},
      {"0x80861", "ahci", false},         {"0x10000", "mpt2sas", false},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(std::string(entry.m_Vendor) + " " + entry.m_Driver);
    SBench bench(Machine(entry.m_Vendor, entry.m_Driver));
    EXPECT_EQ(bench.Qualifies(), entry.m_Qualifies);
    EXPECT_EQ(bench.m_Machine.OpenDescriptors(), 0U);
  }
}

TEST(Qualification, TheVendorFileLosesItsLastCharacterWhateverItIs) {
  const std::pair<std::optional<std::string>, bool> cases[] = {
      {"0x8086\n", true},
      {"0x8086", false},           // "0x808" is left
      {"0x80867", true},           // the cut takes what stands there
      {"0x8086\n0x1022\n", true},  // the first line alone
      {"\n0x8086\n", false},
      {"0x8086\r\n", false},
      {" 0x8086\n", false},
      {"", false},
      {"\n", false},
      {std::string(300, '0') + "0x8086\n", false},
      {std::string(1, '\0') + "0x8086\n", false},
      {std::nullopt, false},
  };
  for (const auto& [text, qualifies] : cases) {
    SCOPED_TRACE(text.value_or("no file"));
    SBench bench(Machine("0x8086", "ahci"));
    bench.m_Machine.SetFile(std::string(FOLDER) + "/vendor", text);
    EXPECT_EQ(bench.Qualifies(), qualifies);
    EXPECT_EQ(bench.m_Machine.OpenDescriptors(), 0U);
  }
}

TEST(Qualification, EveryMissingPieceDisqualifies) {
  const std::pair<const char*, std::function<void(SBench&)>> cases[] = {
      {"no device folder", [](SBench& b) { b.m_Machine.SetFile("/sys/block/sda/device", std::nullopt); }},
      {"no driver link",
       [](SBench& b) { b.m_Machine.SetFile(std::string(FOLDER) + "/driver", std::nullopt); }},
      {"a driver file that is no link",
       [](SBench& b) { b.m_Machine.SetFile(std::string(FOLDER) + "/driver", "ahci"); }},
      {"udevadm fails", [](SBench& b) { b.m_Machine.SetOutput(UDEVADM, std::nullopt); }},
      {"udevadm is silent", [](SBench& b) { b.m_Machine.SetOutput(UDEVADM, ""); }},
      {"udevadm is not there", [](SBench& b) { b.m_Machine.SetFile("/usr/bin/udevadm", std::nullopt); }},
      {"no device path",
       [](SBench& b) {
         b.m_Machine.SetOutput(UDEVADM, "N: sda\nE: DEVPATH=/devices/pci0000:00/0000:00:1f.2\n");
       }},
      {"another controller's path",
       [](SBench& b) { b.m_Machine.SetOutput(UDEVADM, "P: /devices/virtual/host0/block/sda\n"); }},
      {"the folder cannot be opened",
       [](SBench& b) { b.m_Door.FailAt(CFaultyMachine::ECall::Open, 1, EACCES); }},
      {"the vendor cannot be read", [](SBench& b) { b.m_Door.FailAt(CFaultyMachine::ECall::Read, 1, EIO); }},
  };
  for (const auto& [what, change] : cases) {
    SCOPED_TRACE(what);
    SBench bench(Machine("0x8086", "ahci"));
    ASSERT_TRUE(bench.Qualifies());
    change(bench);
    EXPECT_FALSE(bench.Qualifies());
    EXPECT_EQ(bench.m_Machine.OpenDescriptors(), 0U);
  }
}

TEST(Qualification, AFailingLinkOfTheDeviceDoesNotMatter) {
  SBench bench(Machine("0x8086", "ahci"));
  bench.m_Door.FailAt(CFaultyMachine::ECall::ReadLink, 1, EIO);  // it serves the trace alone
  EXPECT_TRUE(bench.Qualifies());
}

TEST(Qualification, AScanAsksUdevOncePerCandidate) {
  SRig rig;
  EXPECT_EQ(rig.m_Machine.CommandCount("udevadm"), 8U);
  rig.Pass();
  EXPECT_EQ(rig.m_Machine.CommandCount("udevadm"), 16U) << "nothing is kept from scan to scan";
}

}  // namespace
