#include "host/Plan.h"

#include <blkid/blkid.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cctype>
#include <iostream>
#include <memory>

#include "KVT/Misc.h"
#include "KVTX/System.h"

namespace rvxctl {

namespace {

std::string SerialOf(const std::string& device) {
  constexpr std::string_view KEY = "ID_SERIAL_SHORT=";
  boost::filesystem::path program;
  std::vector<std::string> lines;
  if (KVT::Misc::CKvtApplication::GetCommandPath("udevadm", program) != 1) return {};
  KVTX::CSystem::ExecuteCommand(program, "info --query=property --name=" + device, lines);
  for (const std::string& line : lines)
    if (line.starts_with(KEY)) return line.substr(KEY.size());
  return {};
}

/// What was read from a disk, fit for a terminal.
std::string Printable(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
  return text;
}

/// File-system and RAID signatures and the partition table of a device, as libblkid knows them.
std::vector<std::string> Signatures(const std::string& device) {
  const std::unique_ptr<blkid_struct_probe, decltype(&blkid_free_probe)> probe(
      blkid_new_probe_from_filename(device.c_str()), &blkid_free_probe);
  std::vector<std::string> found;
  if (!probe) return found;
  blkid_probe_enable_superblocks(probe.get(), 1);
  blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_USAGE);
  blkid_probe_enable_partitions(probe.get(), 1);
  while (blkid_do_probe(probe.get()) == 0) {
    const char* type = nullptr;
    const char* label = nullptr;
    if (blkid_probe_lookup_value(probe.get(), "PTTYPE", &type, nullptr) == 0)
      found.push_back(std::string(type) + " partition table");
    if (blkid_probe_lookup_value(probe.get(), "TYPE", &type, nullptr) != 0) continue;
    blkid_probe_lookup_value(probe.get(), "LABEL", &label, nullptr);
    found.push_back(std::string(type) + " signature" +
                    (label == nullptr ? "" : " labelled \"" + Printable(label) + "\""));
  }
  return found;
}

std::vector<std::string> ContentsOf(const std::string& name) {
  const std::string device = "/dev/" + name;
  std::vector<std::string> contents = Signatures(device);
  for (const KVTX::CPartition& partition : KVTX::CSystemPartitionTable::GetPartitions(device)) {
    std::string text =
        partition.m_Device == device ? std::string("itself") : "partition " + partition.m_Device.substr(5);
    if (partition.m_Device != device)
      for (const std::string& signature : Signatures(partition.m_Device)) text += ", " + signature;
    if (!partition.m_MountPoint.empty()) text += ", mounted at " + Printable(partition.m_MountPoint);
    contents.push_back(text);
  }
  return contents;
}

}  // namespace

SDiskPlan PlanOf(const CContext& context, const CTexts& texts, const PI::CObject& disk) {
  const bool array = disk.m_Kind == PI::OBJ_LOGICAL_DRIVE;
  const auto mebibytes = NumberOf(disk, array ? PI::PROP_ARRAY_CAPACITY : PI::PROP_CAPACITY);
  SDiskPlan plan;
  plan.m_Name = NameOf(disk);
  plan.m_Size = SizeText(mebibytes);
  if (mebibytes) plan.m_Bytes = static_cast<unsigned long>(*mebibytes) << 20;
  plan.m_Model = array ? TextOf(texts, disk, PI::PROP_RAID_LEVEL)
                       : TextOf(texts, disk, PI::PROP_VENDOR) + " " + TextOf(texts, disk, PI::PROP_MODEL);
  if (context.Options().m_Simulate) return plan;
  plan.m_Serial = SerialOf("/dev/" + plan.m_Name);
  plan.m_Contents = ContentsOf(plan.m_Name);
  return plan;
}

Json PlanJson(const std::vector<SDiskPlan>& disks) {
  Json list = Json::array();
  for (const SDiskPlan& disk : disks)
    list.push_back({{"name", disk.m_Name},
                    {"size", disk.m_Size},
                    {"bytes", disk.m_Bytes ? Json(*disk.m_Bytes) : Json(nullptr)},
                    {"model", disk.m_Model},
                    {"serial", disk.m_Serial.empty() ? Json(nullptr) : Json(disk.m_Serial)},
                    {"contents", disk.m_Contents}});
  return list;
}

std::string PlanText(const std::vector<SDiskPlan>& disks) {
  std::vector<std::vector<std::string>> rows;
  for (const SDiskPlan& disk : disks) {
    std::string contents;
    for (const std::string& content : disk.m_Contents) contents += (contents.empty() ? "" : "; ") + content;
    rows.push_back({"  " + disk.m_Name, disk.m_Size, disk.m_Model,
                    disk.m_Serial.empty() ? "-" : disk.m_Serial,
                    contents.empty() ? "nothing known" : contents});
  }
  return Table({"  DEVICE", "SIZE", "MODEL", "SERIAL", "WHAT IS ON IT"}, rows);
}

void Confirm(const std::string& question) {
  if (::isatty(STDIN_FILENO) != 1)
    throw CError(EXIT_NOT_CONFIRMED,
                 "nothing was changed: this needs a yes, and there is no terminal to ask on; say --yes");
  std::cerr << question << " [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "Y" && answer != "yes")
    throw CError(EXIT_NOT_CONFIRMED, "nothing was changed");
}

}  // namespace rvxctl
