#include "simulator/description/DiskDescription.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/hex.hpp>
#include <boost/format.hpp>
#include <cstdio>
#include <set>

namespace Simulation {
namespace {

constexpr std::uint64_t FIRST_PARTITION = 1024;
constexpr unsigned int MINORS_PER_DISK = 16;
constexpr unsigned int MOST_MINOR = 0xfffff;
constexpr unsigned int MOST_ADDRESS = 0xffff;  ///< of a SCSI host or target
constexpr std::size_t MOST_ATTRIBUTES = 30;

/// The kernel's number for a disk of that name; 0 when it has none by itself.
dev_t UsualDevice(const std::string& name) {
  constexpr std::array<unsigned int, 16> SD_MAJORS = {8,   65,  66,  67,  68,  69,  70,  71,
                                                      128, 129, 130, 131, 132, 133, 134, 135};
  constexpr std::array<unsigned int, 10> HD_MAJORS = {3, 22, 33, 34, 56, 57, 88, 89, 90, 91};
  constexpr unsigned int VD_MAJOR = 254;
  if (name.size() < 3 || name.size() > 5) return 0;
  unsigned int index = 0;
  for (const char letter : name.substr(2)) {
    if (letter < 'a' || letter > 'z') return 0;
    index = index * 26 + static_cast<unsigned int>(letter - 'a') + 1;
  }
  --index;
  if (name.starts_with("sd") && index / 16 < SD_MAJORS.size())
    return makedev(SD_MAJORS[index / 16], index % 16 * 16);
  if (name.starts_with("hd") && index / 2 < HD_MAJORS.size())
    return makedev(HD_MAJORS[index / 2], index % 2 * 64);
  return name.starts_with("vd") ? makedev(VD_MAJOR, index * 16) : 0;
}

const TKeys<SPartition>& PartitionKeys() {
  static const TKeys<SPartition> keys = {Number("number", &SPartition::m_Number, 1, MINORS_PER_PARTITIONABLE),
                                         Number("start", &SPartition::m_Start, 0, MOST_SIZE),
                                         Needed(Number("size", &SPartition::m_Size, 1, MOST_SIZE)),
                                         Value("mount", &SPartition::m_Mount)};
  return keys;
}

const TKeys<SSmartAttribute>& SmartKeys() {
  static const TKeys<SSmartAttribute> keys = {
      Needed(Number("id", &SSmartAttribute::m_ID, 1, 255)),
      Number("flags", &SSmartAttribute::m_Flags, 0, 0xffff),
      {"value",
       [](SMachine&, SSmartAttribute& attribute, const TJson& json) {
         attribute.m_Value = attribute.m_Worst = NumberOf<unsigned char>(json, 0, 255);
       },
       Value("", &SSmartAttribute::m_Value).m_Write},
      Number("worst", &SSmartAttribute::m_Worst, 0, 255),
      Number("raw", &SSmartAttribute::m_Raw, 0, (std::uint64_t{1} << 48) - 1)};
  return keys;
}

void ReadSmart(SMachine& machine, SDisk& disk, const TJson& json) {
  disk.m_Smart.emplace();
  ReadKeys<SDisk>({{"attributes",
                    [](SMachine& of, SDisk& owner, const TJson& list) {
                      if (ListOf(list).size() > MOST_ATTRIBUTES)
                        Fail(list, "is longer than 30, which is all there is room for");
                      for (const TJson& item : list)
                        ReadKeys(SmartKeys(), of, owner.m_Smart->emplace_back(), item);
                    },
                    {},
                    true}},
                  machine, disk, json);
}

TJson WriteSmart(const SMachine& machine, const SDisk& disk) {
  return disk.m_Smart ? TJson{{"attributes", WriteList(SmartKeys(), machine, *disk.m_Smart)}} : TJson();
}

struct SData {
  std::uint64_t m_At{};
  std::string m_Bytes;
};

const TKeys<SData>& DataKeys() {
  static const TKeys<SData> keys = {
      Needed(Number("at", &SData::m_At, 0, MOST_SIZE * 1024)),
      {"bytes",
       [](SMachine&, SData& data, const TJson& json) {
         try {
           data.m_Bytes = boost::algorithm::unhex(json.get<std::string>());
         } catch (const boost::algorithm::hex_decode_error&) {
           Fail(json, "is not made of pairs of hexadecimal digits");
         }
       },
       [](const SMachine&, const SData& data) { return TJson(boost::algorithm::hex_lower(data.m_Bytes)); },
       true}};
  return keys;
}

void ReadData(SMachine& machine, SDisk& disk, const TJson& json) {
  for (const TJson& item : ListOf(json)) {
    SData data;
    ReadKeys(DataKeys(), machine, data, item);
    const std::uint64_t end = disk.m_Size * 1024;
    if (data.m_At > end || data.m_Bytes.size() > end - data.m_At) Fail(item, "ends behind the disk");
    disk.m_Bytes.Write(data.m_At, data.m_Bytes.data(), data.m_Bytes.size());
  }
}

TJson WriteData(const SMachine& machine, const SDisk& disk) {
  std::vector<SData> list;
  for (const auto& [number, block] : disk.m_Bytes.Blocks()) {
    const std::string bytes(block.data(), block.size());
    list.push_back({number * CSparseBytes::BLOCK, bytes.substr(0, bytes.find_last_not_of('\0') + 1)});
  }
  return WriteList(DataKeys(), machine, list);
}

void ReadWwn(SMachine&, SDisk& disk, const TJson& json) {
  disk.m_Wwn = json.get<std::string>();
  const std::string digits = disk.m_Wwn.substr(std::min<std::size_t>(disk.m_Wwn.size(), 2));
  const bool fits = digits.size() == 16 || digits.size() == 32;
  if (!disk.m_Wwn.starts_with("0x") || !fits ||
      digits.find_first_not_of("0123456789abcdef") != std::string::npos)
    Fail(json, "is not 0x and 16 or 32 hexadecimal digits");
}

void ReadController(SMachine& machine, SDisk& disk, const TJson& json) {
  const auto& all = machine.m_Controllers;
  const auto found =
      std::find_if(all.begin(), all.end(), [&](const auto& one) { return json == one.m_Name; });
  if (found == all.end()) Fail(json, "there is no such controller");
  disk.m_Controller = static_cast<std::size_t>(found - all.begin());
  disk.m_Vendor = FindDriver(found->m_Driver).m_IsAta ? "ATA" : "ACME";
}

}  // namespace

const TKeys<SDisk>& DiskKeys() {
  static const TKeys<SDisk> keys = {
      {"name",
       [](SMachine&, SDisk& disk, const TJson& json) {
         disk.m_Name = NonEmptyText(json);
         disk.m_Device = UsualDevice(disk.m_Name);
       },
       Value("", &SDisk::m_Name).m_Write, true},
      {"controller", ReadController,
       [](const SMachine& machine, const SDisk& disk) {
         return TJson(machine.m_Controllers[disk.m_Controller].m_Name);
       },
       true},
      {"device", [](SMachine&, SDisk& disk, const TJson& json) { disk.m_Device = ReadDevice(json); },
       [](const SMachine&, const SDisk& disk) { return TJson(DeviceText(disk.m_Device)); }},
      Number("host", &SDisk::m_Host, 0, MOST_ADDRESS),
      Number("target", &SDisk::m_Target, 0, MOST_ADDRESS),
      Needed(Number("size", &SDisk::m_Size, 1, MOST_SIZE)),
      Value("vendor", &SDisk::m_Vendor),
      Value("model", &SDisk::m_Model),
      Value("serial", &SDisk::m_Serial),
      {"wwn", ReadWwn,
       [](const SMachine&, const SDisk& disk) { return disk.m_Wwn.empty() ? TJson() : TJson(disk.m_Wwn); }},
      Number("instance", &SDisk::m_Instance, 1, MOST_INSTANCE),
      Choice("medium", &SDisk::m_SolidState, {{"rotating", false}, {"solid-state", true}}),
      Choice<SDisk, std::string>("state", &SDisk::m_State,
                                 {{"running", "running"},
                                  {"offline", "offline"},
                                  {"transport-offline", "transport-offline"},
                                  {"blocked", "blocked"},
                                  {"quiesce", "quiesce"},
                                  {"created", "created"},
                                  {"cancel", "cancel"},
                                  {"deleted", "deleted"}}),
      Value("asleep", &SDisk::m_Asleep),
      Value("held", &SDisk::m_Held),
      Value("mount", &SDisk::m_Mount),
      {"smart", ReadSmart, WriteSmart},
      {"partitions",
       [](SMachine& machine, SDisk& disk, const TJson& json) {
         disk.m_Partitions = ReadPartitions(machine, json, disk.m_Size, MINORS_PER_DISK - 1);
       },
       [](const SMachine& machine, const SDisk& disk) {
         return WritePartitions(machine, disk.m_Partitions);
       }},
      {"data", ReadData, WriteData}};
  return keys;
}

void AddDiskFrom(SMachine& machine, const TJson& json) {
  SDisk disk;
  disk.m_Model = "DISK";
  disk.m_Serial = str(boost::format("RVX%05d") % (machine.m_LastInstance + 1));
  ReadKeys(DiskKeys(), machine, disk, json);
  if (disk.m_Device == 0) Fail(json["name"], "has no usual number, so \"device\" must give one");
  Attach(machine, std::move(disk));
  const SDisk& last = machine.m_Disks.back();
  if (std::max(last.m_Host, last.m_Target) > MOST_ADDRESS) Fail(json, "no SCSI address is left for it");
  CheckDevices(machine, json);
}

std::vector<SPartition> ReadPartitions(SMachine& machine, const TJson& json, std::uint64_t size,
                                       unsigned int most) {
  std::vector<SPartition> partitions;
  unsigned int number = 0;
  std::uint64_t end = FIRST_PARTITION;
  for (const TJson& item : ListOf(json)) {
    SPartition partition{number + 1, end, 0, ""};
    ReadKeys(PartitionKeys(), machine, partition, item);
    if (partition.m_Number <= number) Fail(item, "its number is not above the one before");
    if (partition.m_Number > most) Fail(item, "is one too many");
    number = partition.m_Number;
    end = partition.m_Start + partition.m_Size;
    if (end > size) Fail(item, "ends behind the device");
    partitions.push_back(std::move(partition));
  }
  return partitions;
}

TJson WritePartitions(const SMachine& machine, const std::vector<SPartition>& partitions) {
  return WriteList(PartitionKeys(), machine, partitions);
}

void CheckDevices(SMachine& machine, const TJson& json) {
  std::map<std::string, dev_t> names;
  std::map<dev_t, std::string> numbers;
  std::set<std::uint64_t> instances;
  for (const SBlock& block : AllBlocks(machine)) {
    const unsigned int majorNumber = major(block.m_Device);
    const bool isMds = majorNumber == MD_MAJOR_NUMBER || majorNumber == machine.m_MdpMajor;
    if (block.m_Disk != nullptr && (isMds || block.m_Name.starts_with("md")))
      Fail(json, "name and number of " + block.m_Name + " must not be like an array's");
    if (minor(block.m_Device) > MOST_MINOR) Fail(json, "no number is left for " + block.m_Name);
    if (!names.emplace(block.m_Name, block.m_Device).second) Fail(json, "there is another " + block.m_Name);
    const auto [other, isFirst] = numbers.emplace(block.m_Device, block.m_Name);
    if (!isFirst) Fail(json, "the number of " + block.m_Name + " is that of " + other->second);
    if (block.m_Partition == nullptr && !instances.insert(block.Instance()).second)
      Fail(json, "the instance of " + block.m_Name + " is another device's");
  }
}

dev_t ReadDevice(const TJson& json) {
  const auto text = json.get<std::string>();
  unsigned int majorNumber = 0, minorNumber = 0;
  const bool read = std::sscanf(text.c_str(), "%4u:%7u", &majorNumber, &minorNumber) == 2;
  const bool usable = read && majorNumber < 4096 && minorNumber <= MOST_MINOR;
  if (!usable || DeviceText(makedev(majorNumber, minorNumber)) != text)
    Fail(json, "is no device number such as \"8:16\"");
  return makedev(majorNumber, minorNumber);
}

std::string DeviceText(dev_t device) { return str(boost::format("%d:%d") % major(device) % minor(device)); }

}  // namespace Simulation
