#include "simulator/description/MachineDescription.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <boost/format.hpp>
#include <cctype>
#include <numeric>

#include "simulator/machine/MachineError.h"

namespace Simulation {
namespace {

constexpr std::uint64_t MOST_SIZE = std::uint64_t{1} << 40;  // KiB; far beyond what a disk holds
constexpr std::uint64_t DEFAULT_CLOCK = 1704067200000;       // 2024-01-01 00:00 UTC
constexpr std::uint64_t DEFAULT_SPEED = 34048;
constexpr std::uint64_t FIRST_PARTITION = 1024;
constexpr unsigned int MINORS_PER_DISK = 16;
constexpr unsigned int MOST_MINOR = 0xfffff;
constexpr unsigned int MOST_ADDRESS = 0xffff;  ///< of a SCSI host or target

bool IsAta(const std::string& driver) { return driver == "ahci" || driver == "ata_piix"; }

bool IsPciAddress(const std::string& text) {
  const std::string form = "hhhh:hh:hh.h";
  return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char letter, char expected) {
    return expected == 'h' ? std::isxdigit(static_cast<unsigned char>(letter)) != 0 : letter == expected;
  });
}

void ReadControllers(SMachine& machine, const CJsonReader& root) {
  for (const CJsonReader& reader : root.ItemsOf("controllers")) {
    reader.OnlyKeys({"name", "pci", "vendor", "driver"});
    SController controller;
    controller.m_Name = reader.Need("name").NonEmptyText();
    controller.m_Address = reader.Need("pci").NonEmptyText();
    controller.m_Vendor = reader.TextOr("vendor", "0x8086");
    controller.m_Driver = reader.Need("driver").NonEmptyText();
    if (!IsPciAddress(controller.m_Address)) {
      reader.Need("pci").Fail("is no PCI address such as \"0000:00:1f.2\"");
    }
    for (const SController& other : machine.m_Controllers) {
      if (other.m_Name == controller.m_Name) reader.Need("name").Fail("there is another " + other.m_Name);
      if (other.m_Address == controller.m_Address) reader.Need("pci").Fail("is taken by " + other.m_Name);
    }
    machine.m_Controllers.push_back(std::move(controller));
  }
}

void ReadNodes(SMachine& machine, const CJsonReader& root) {
  for (const CJsonReader& reader : root.ItemsOf("nodes")) {
    reader.OnlyKeys({"path", "device", "mode"});
    const auto mode = static_cast<mode_t>(reader.NumberOr("mode", 0666, 0, 07777));
    machine.m_Nodes.push_back(
        {reader.Need("path").NonEmptyText(), S_IFBLK | mode, ReadDevice(reader.Need("device"))});
  }
}

void ReadScript(SMachine& machine, const CJsonReader& root) {
  for (const CJsonReader& reader : root.ItemsOf("script")) {
    const std::uint64_t time = reader.Need("at").Number(0, EVERYTHING / 2);
    const auto& script = machine.m_Script;
    if (!script.empty() && script.back().m_At > time) reader.Need("at").Fail("lies before the entry above");
    machine.m_Script.push_back({time, reader.Value()});
  }
  if (machine.m_Script.empty() || !root.FlagOr("rehearsed", true)) return;
  // A change that cannot work is found now and not when a test or a user waits for it.
  SMachine rehearsal = machine;
  AdvanceTo(rehearsal, machine.m_Script.back().m_At, true);
}

SDisk ReadDisk(const SMachine& machine, const CJsonReader& reader) {
  reader.OnlyKeys({"name", "controller", "size", "vendor", "model", "serial", "medium", "state", "asleep",
                   "held", "mount", "device", "smart", "partitions", "host", "target", "data"});
  SDisk disk;
  disk.m_Name = reader.Need("name").NonEmptyText();
  const std::string controller = reader.Need("controller").Text();
  const auto& all = machine.m_Controllers;
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const auto& one) { return one.m_Name == controller; });
  if (found == all.end()) reader.Need("controller").Fail("there is no controller \"" + controller + "\"");
  disk.m_Controller = static_cast<std::size_t>(found - all.begin());
  disk.m_Size = reader.Need("size").Number(1, MOST_SIZE);
  const auto device = reader.Find("device");
  disk.m_Device = device ? ReadDevice(*device) : UsualDevice(disk.m_Name);
  if (disk.m_Device == 0) reader.Need("name").Fail("has no usual number, so \"device\" must give one");
  disk.m_Vendor = reader.TextOr("vendor", IsAta(found->m_Driver) ? "ATA" : "ACME");
  disk.m_Model = reader.TextOr("model", "DISK");
  disk.m_Serial = reader.TextOr("serial", str(boost::format("RVX%05d") % (machine.m_LastInstance + 1)));
  const std::string medium = reader.TextOr("medium", "rotating");
  disk.m_SolidState = medium == "solid-state";
  if (!disk.m_SolidState && medium != "rotating") {
    reader.Need("medium").Fail("is neither \"rotating\" nor \"solid-state\"");
  }
  if (const auto state = reader.Find("state")) disk.m_State = ReadDiskState(*state);
  disk.m_Asleep = reader.FlagOr("asleep", false);
  disk.m_Held = reader.FlagOr("held", false);
  disk.m_Mount = reader.TextOr("mount", "");
  if (const auto host = reader.Find("host"))
    disk.m_Host = static_cast<unsigned int>(host->Number(0, MOST_ADDRESS));
  disk.m_Target = static_cast<unsigned int>(reader.NumberOr("target", 0, 0, MOST_ADDRESS));
  if (const auto smart = reader.Find("smart")) disk.m_Smart = ReadSmart(*smart);
  disk.m_Partitions = ReadPartitions(reader.ItemsOf("partitions"), disk.m_Size, MINORS_PER_DISK - 1);
  for (const CJsonReader& item : reader.ItemsOf("data")) {
    item.OnlyKeys({"at", "bytes"});
    const std::string bytes = item.Need("bytes").Bytes();
    const std::uint64_t offset = item.Need("at").Number(0, disk.m_Size * 1024);
    if (bytes.size() > disk.m_Size * 1024 - offset) item.Fail("ends behind the disk");
    disk.m_Bytes.Write(offset, bytes.data(), bytes.size());
  }
  return disk;
}

TSmartBlock SmartFromAttributes(const std::vector<CJsonReader>& attributes) {
  constexpr std::size_t FIRST = 2, LENGTH = 12, MOST = 30;
  TSmartBlock block{};
  block[0] = 16;  // revision of the structure
  if (attributes.size() > MOST) attributes.back().Fail("there is room for 30");
  for (std::size_t i = 0; i < attributes.size(); ++i) {
    const CJsonReader& reader = attributes[i];
    reader.OnlyKeys({"id", "flags", "value", "worst", "raw"});
    unsigned char* entry = block.data() + FIRST + i * LENGTH;
    const std::uint64_t flags = reader.NumberOr("flags", 0x32, 0, 0xffff);
    const std::uint64_t value = reader.NumberOr("value", 100, 0, 255);
    const std::uint64_t raw = reader.NumberOr("raw", 0, 0, (std::uint64_t{1} << 48) - 1);
    entry[0] = static_cast<unsigned char>(reader.Need("id").Number(1, 255));
    entry[1] = static_cast<unsigned char>(flags & 0xff);
    entry[2] = static_cast<unsigned char>(flags >> 8);
    entry[3] = static_cast<unsigned char>(value);
    entry[4] = static_cast<unsigned char>(reader.NumberOr("worst", value, 0, 255));
    for (unsigned int byte = 0; byte < 6; ++byte)
      entry[5 + byte] = static_cast<unsigned char>(raw >> 8 * byte & 0xff);
  }
  // The last byte makes the sum of all bytes zero.
  block.back() = static_cast<unsigned char>(-std::accumulate(block.begin(), block.end(), 0) & 0xff);
  return block;
}

}  // namespace

dev_t ReadDevice(const CJsonReader& reader) {
  const std::string text = reader.Text();
  unsigned int majorNumber = 0, minorNumber = 0;
  const bool read = std::sscanf(text.c_str(), "%4u:%7u", &majorNumber, &minorNumber) == 2;
  const bool usable = read && majorNumber < 4096 && minorNumber <= MOST_MINOR;
  if (!usable || DeviceText(makedev(majorNumber, minorNumber)) != text) {
    reader.Fail("is no device number such as \"8:16\"");
  }
  return makedev(majorNumber, minorNumber);
}

std::string DeviceText(dev_t device) { return str(boost::format("%d:%d") % major(device) % minor(device)); }

dev_t UsualDevice(const std::string& name) {
  constexpr std::array<unsigned int, 16> SD_MAJORS = {8,   65,  66,  67,  68,  69,  70,  71,
                                                      128, 129, 130, 131, 132, 133, 134, 135};
  constexpr std::array<unsigned int, 10> HD_MAJORS = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
  constexpr unsigned int VD_MAJOR = 254;
  if (name.size() < 3 || name.size() > 5) return 0;
  const std::string kind = name.substr(0, 2);
  std::size_t index = 0;
  for (const char letter : name.substr(2)) {
    if (letter < 'a' || letter > 'z') return 0;
    index = index * 26 + static_cast<std::size_t>(letter - 'a') + 1;
  }
  --index;
  const auto minorNumber = static_cast<unsigned int>(index % 16 * 16);
  if (kind == "sd" && index / 16 < SD_MAJORS.size()) return makedev(SD_MAJORS[index / 16], minorNumber);
  if (kind == "hd" && index / 2 < HD_MAJORS.size()) {
    return makedev(HD_MAJORS[index / 2], static_cast<unsigned int>(index % 2 * 64));
  }
  return kind == "vd" ? makedev(VD_MAJOR, static_cast<unsigned int>(index * 16)) : 0;
}

std::string ReadDiskState(const CJsonReader& reader) {
  std::string state = reader.Text();
  for (const char* known :
       {"running", "offline", "transport-offline", "blocked", "quiesce", "created", "cancel", "deleted"}) {
    if (state == known) return state;
  }
  reader.Fail("is no state of a SCSI device such as \"running\" or \"offline\"");
}

TSmartBlock ReadSmart(const CJsonReader& reader) {
  reader.OnlyKeys({"attributes", "block"});
  const auto raw = reader.Find("block");
  if (!raw) return SmartFromAttributes(reader.Need("attributes").Items());
  const std::string bytes = raw->Bytes();
  TSmartBlock block{};
  if (bytes.size() != block.size()) raw->Fail("does not hold 512 bytes");
  std::copy(bytes.begin(), bytes.end(), block.begin());
  return block;
}

std::vector<SPartition> ReadPartitions(const std::vector<CJsonReader>& items, std::uint64_t size,
                                       unsigned int most) {
  std::vector<SPartition> partitions;
  unsigned int number = 0;
  std::uint64_t end = FIRST_PARTITION;
  for (const CJsonReader& reader : items) {
    reader.OnlyKeys({"number", "start", "size", "mount"});
    SPartition partition;
    if (number == most) reader.Fail("is one too many");
    partition.m_Number = static_cast<unsigned int>(reader.NumberOr("number", number + 1, number + 1, most));
    partition.m_Start = reader.NumberOr("start", end, 0, MOST_SIZE);
    partition.m_Size = reader.Need("size").Number(1, MOST_SIZE);
    partition.m_Mount = reader.TextOr("mount", "");
    number = partition.m_Number;
    end = partition.m_Start + partition.m_Size;
    if (end > size) reader.Fail("ends behind the device");
    partitions.push_back(std::move(partition));
  }
  return partitions;
}

void AddDiskFrom(SMachine& machine, const CJsonReader& reader) {
  Attach(machine, ReadDisk(machine, reader));
  const SDisk& disk = machine.m_Disks.back();
  if (std::max(disk.m_Host, disk.m_Target) > MOST_ADDRESS) reader.Fail("no SCSI address is left for it");
  CheckDevices(machine, reader);
}

void CheckDevices(SMachine& machine, const CJsonReader& reader) {
  std::map<std::string, dev_t> names;
  std::map<dev_t, std::string> numbers;
  for (const SBlock& block : AllBlocks(machine)) {
    const unsigned int majorNumber = major(block.m_Device);
    const bool isMds = majorNumber == MD_MAJOR_NUMBER || majorNumber == machine.m_MdpMajor;
    if (block.m_Disk != nullptr && (isMds || block.m_Name.starts_with("md")))
      reader.Fail("name and number of " + block.m_Name + " must not be like an array's");
    if (minor(block.m_Device) > MOST_MINOR) reader.Fail("no number is left for " + block.m_Name);
    if (!names.emplace(block.m_Name, block.m_Device).second) reader.Fail("there is another " + block.m_Name);
    const auto [other, isFirst] = numbers.emplace(block.m_Device, block.m_Name);
    if (!isFirst) reader.Fail("the number of " + block.m_Name + " is that of " + other->second);
  }
}

SMachine ReadMachine(const std::string& text) {
  const TJson json = ParseJson(text);
  const CJsonReader root(json, "");
  root.OnlyKeys({"clock", "seed", "mdp_major", "sync_speed", "process", "sdparm", "controllers", "disks",
                 "arrays", "nodes", "script", "rehearsed", "instances"});
  SMachine machine;
  machine.m_ClockStart = root.NumberOr("clock", DEFAULT_CLOCK, 0, EVERYTHING);
  machine.m_Random = root.NumberOr("seed", 1, 0, EVERYTHING);
  machine.m_MdpMajor = static_cast<unsigned int>(root.NumberOr("mdp_major", 253, 10, 4095));
  machine.m_Speed = root.NumberOr("sync_speed", DEFAULT_SPEED, 0, MOST_SIZE);
  machine.m_Process = root.TextOr("process", "/opt/storage/server");
  machine.m_HasSdparm = root.FlagOr("sdparm", false);
  ReadControllers(machine, root);
  for (const CJsonReader& reader : root.ItemsOf("disks")) AddDiskFrom(machine, reader);
  for (const CJsonReader& reader : root.ItemsOf("arrays")) AddArrayFrom(machine, reader);
  machine.m_LastInstance = std::max(machine.m_LastInstance, root.NumberOr("instances", 0, 0, EVERYTHING / 2));
  ReadNodes(machine, root);
  ReadScript(machine, root);
  return machine;
}

}  // namespace Simulation
