#include "simulator/machine/UdevRecord.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <boost/algorithm/string.hpp>
#include <boost/format.hpp>
#include <cctype>
#include <cstring>

namespace Simulation {
namespace {

/// As udev makes a name of what a disk says of itself: blanks become one line below, and so does what a shell
/// or a path would trip over.
std::string Cleaned(std::string text) {
  boost::trim(text);
  std::string clean;
  for (const char letter : text) {
    const auto byte = static_cast<unsigned char>(letter);
    const bool stays = byte >= 0x80 || std::isalnum(byte) != 0 || std::strchr("#+-.:=@_", letter) != nullptr;
    const bool isSecondBlank = std::isspace(byte) != 0 && clean.ends_with('_');
    if (!isSecondBlank) clean += stays ? letter : '_';
  }
  return clean;
}

using TProperties = std::map<std::string, std::string>;

/// The identity of a disk, which its partitions have too.
void AddIdentity(TProperties& properties, const SDisk& disk, bool isAta) {
  const bool isVirtio = disk.m_Name.starts_with("vd");
  const std::string serial = Cleaned(disk.m_Serial);
  if (isVirtio) {
    if (!serial.empty()) properties["ID_SERIAL"] = serial;
    return;
  }
  const std::string model = Cleaned(isAta ? disk.m_Model : disk.m_Model.substr(0, 16));
  properties["ID_BUS"] = isAta ? "ata" : "scsi";
  properties["ID_TYPE"] = "disk";
  properties["ID_MODEL"] = model;
  if (!disk.m_Wwn.empty()) properties["ID_WWN"] = disk.m_Wwn;
  if (isAta) {
    properties["ID_SERIAL"] = serial.empty() ? model : model + '_' + serial;
    if (!serial.empty()) properties["ID_SERIAL_SHORT"] = serial;
    return;
  }
  const std::string vendor = Cleaned(disk.m_Vendor.substr(0, 8));
  properties["ID_VENDOR"] = vendor;
  // A SCSI disk is known by its world wide name where it has one; its serial number stands beside it.
  const std::string shortName = disk.m_Wwn.empty() ? serial : disk.m_Wwn.substr(2);
  properties["ID_SERIAL"] = disk.m_Wwn.empty() ? 'S' + vendor + '_' + model + '_' + serial : '3' + shortName;
  properties["ID_SERIAL_SHORT"] = shortName;
  properties["ID_SCSI_SERIAL"] = serial;
}

std::vector<std::string> LinksOf(const TProperties& properties, const SDisk& disk, const std::string& part) {
  const auto value = [&](const char* key) {
    const auto found = properties.find(key);
    return found == properties.end() ? std::string() : found->second;
  };
  std::vector<std::string> links;
  const auto add = [&](const std::string& folder, const std::string& name) {
    if (!name.empty()) links.push_back("disk/by-" + folder + name + part);
  };
  add(disk.m_Name.starts_with("vd") ? "id/virtio-" : "id/" + value("ID_BUS") + '-', value("ID_SERIAL"));
  add("id/wwn-", value("ID_WWN"));
  add("path/", value("ID_PATH"));
  return links;
}

/// What mdadm's rules for udev make of a superblock of version 1: four words, byte by byte.
std::vector<std::string> LinksOf(const SArray& array) {
  if (!array.m_Running || array.m_MajorVersion != 1) return {};
  std::string uuid = boost::algorithm::hex_lower(std::string(array.m_Uuid.begin(), array.m_Uuid.end()));
  for (const std::size_t at : {24U, 16U, 8U}) uuid.insert(at, 1, ':');
  return {"disk/by-id/md-uuid-" + uuid};
}

}  // namespace

std::vector<std::string> UdevRecord(const SMachine& machine, const SBlock& block, std::string devicePath) {
  const bool isPartition = block.m_Partition != nullptr;
  if (isPartition) devicePath += '/' + block.m_Name;
  TProperties properties = {{"DEVPATH", devicePath},
                            {"DEVNAME", "/dev/" + block.m_Name},
                            {"DEVTYPE", isPartition ? "partition" : "disk"},
                            {"DISKSEQ", std::to_string(block.Instance())},
                            {"MAJOR", std::to_string(major(block.m_Device))},
                            {"MINOR", std::to_string(minor(block.m_Device))},
                            {"SUBSYSTEM", "block"}};
  if (block.m_Array != nullptr) {
    // The device of an array that was made while the machine runs came with it.
    const std::uint64_t boot = machine.m_ClockStart / 1000;
    properties["USEC_INITIALIZED"] =
        std::to_string((std::max(block.m_Array->m_Created, boot) - boot) * 1000000);
  }
  if (isPartition) properties["PARTN"] = std::to_string(block.m_Partition->m_Number);
  std::vector<std::string> links;
  if (block.m_Array != nullptr && !isPartition) links = LinksOf(*block.m_Array);
  if (block.m_Disk != nullptr) {
    const SController& controller = machine.m_Controllers[block.m_Disk->m_Controller];
    const SDriver& driver = FindDriver(controller.m_Driver);
    AddIdentity(properties, *block.m_Disk, driver.m_IsAta);
    boost::format path("pci-%3%" +
                       std::string(block.m_Disk->m_Name.starts_with("vd") ? "" : driver.m_PathID));
    path.exceptions(boost::io::all_error_bits ^ boost::io::too_many_args_bit);
    properties["ID_PATH"] =
        str(path % (block.m_Disk->m_Host + 1) % block.m_Disk->m_Target % controller.m_Address);
    const std::string part = isPartition ? "-part" + properties["PARTN"] : "";
    links = LinksOf(properties, *block.m_Disk, part);
  }
  if (!links.empty()) properties["DEVLINKS"] = "/dev/" + boost::join(links, " /dev/");
  std::vector<std::string> lines = {"P: " + devicePath, "N: " + block.m_Name};
  for (const std::string& link : links) lines.push_back("S: " + link);
  lines.push_back("Q: " + properties["DISKSEQ"]);
  for (const auto& [key, value] : properties) lines.emplace_back("E: ").append(key).append("=").append(value);
  lines.emplace_back();  // it ends a record
  return lines;
}

}  // namespace Simulation
