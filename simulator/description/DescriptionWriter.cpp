#include <boost/format.hpp>

#include "simulator/description/MachineDescription.h"
#include "simulator/machine/MdDriver.h"
#include "simulator/machine/MdSync.h"

namespace Simulation {
namespace {

TJson PartitionsJson(const std::vector<SPartition>& partitions) {
  TJson list = TJson::array();
  for (const SPartition& partition : partitions) {
    list.push_back({{"number", partition.m_Number},
                    {"start", partition.m_Start},
                    {"size", partition.m_Size},
                    {"mount", partition.m_Mount}});
  }
  return list;
}

TJson DiskJson(const SMachine& machine, const SDisk& disk) {
  TJson json = {{"name", disk.m_Name},
                {"controller", machine.m_Controllers[disk.m_Controller].m_Name},
                {"device", DeviceText(disk.m_Device)},
                {"host", disk.m_Host},
                {"target", disk.m_Target},
                {"size", disk.m_Size},
                {"vendor", disk.m_Vendor},
                {"model", disk.m_Model},
                {"serial", disk.m_Serial},
                {"medium", disk.m_SolidState ? "solid-state" : "rotating"},
                {"state", disk.m_State}};
  if (disk.m_Asleep) json["asleep"] = true;
  if (disk.m_Held) json["held"] = true;
  if (!disk.m_Mount.empty()) json["mount"] = disk.m_Mount;
  if (!disk.m_Partitions.empty()) json["partitions"] = PartitionsJson(disk.m_Partitions);
  if (disk.m_Smart)
    json["smart"]["block"] = ToBase64(std::string(disk.m_Smart->begin(), disk.m_Smart->end()));
  for (const auto& [number, block] : disk.m_Bytes.Blocks()) {
    // The last block of a disk may reach over its end.
    const std::uint64_t at = number * CSparseBytes::BLOCK;
    const std::size_t size = std::min<std::uint64_t>(CSparseBytes::BLOCK, disk.m_Size * 1024 - at);
    json["data"].push_back({{"at", at}, {"bytes", ToBase64(std::string(block.data(), size))}});
  }
  return json;
}

const char* MemberState(const SMember& member) {
  if (member.m_Faulty) return "faulty";
  return member.m_Slot < 0 ? "spare" : member.m_InSync ? "in sync" : "rebuilding";
}

TJson MemberJson(SMachine& machine, const SArray& array, const SMember& member) {
  TJson json = {{"disk", member.m_Name}, {"number", member.m_Number}};
  if (member.m_Slot >= 0) json["slot"] = member.m_Slot;
  if (member.m_SavedSlot >= 0) json["saved_slot"] = member.m_SavedSlot;
  if (array.m_RaidDisks != 0) json["state"] = MemberState(member);
  json["sectors"] = member.m_Sectors;
  if (member.m_RecoveredSectors != 0) json["recovered"] = member.m_RecoveredSectors;
  const auto block = FindBlock(machine, member.m_Device);
  if (!block || block->Instance() != member.m_Instance) json["gone"] = DeviceText(member.m_Device);
  return json;
}

TJson ArrayJson(SMachine& machine, const SArray& array) {
  TJson json = {{"name", array.m_Name}, {"running", array.m_Running}, {"kept", array.m_Kept}};
  if (array.m_RaidDisks != 0) {
    const SPersonality* personality = FindPersonality(array.m_Level);
    json["level"] = personality != nullptr ? TJson(personality->m_Name) : TJson(array.m_Level);
    json["raid_disks"] = array.m_RaidDisks;
    json["chunk"] = array.m_ChunkSectors / 2;
    json["layout"] = array.m_Layout;
  }
  json["metadata"] = MetadataText(array);
  json["size"] = array.m_DeviceSectors / 2;
  json["clean"] = array.m_Clean;
  if (array.m_Broken) json["broken"] = true;
  json["created"] = array.m_Created;
  json["updated"] = array.m_Updated;
  json["events"] = array.m_Events;
  json["set_name"] = array.m_SetName;
  std::string uuid;
  for (const unsigned char byte : array.m_Uuid) uuid += str(boost::format("%02x") % static_cast<int>(byte));
  json["uuid"] = uuid;
  json["speed"] = array.m_Speed;
  json["members"] = TJson::array();
  // The one that came first stands first here, as in a description that a person writes.
  for (auto member = array.m_Members.rbegin(); member != array.m_Members.rend(); ++member) {
    json["members"].push_back(MemberJson(machine, array, *member));
  }
  if (!array.m_Partitions.empty()) json["partitions"] = PartitionsJson(array.m_Partitions);
  if (!array.m_Mount.empty()) json["mount"] = array.m_Mount;
  if (array.m_SyncedSectors != EVERYTHING) json["resync_from"] = array.m_SyncedSectors / 2;
  if (array.m_Sync) {
    TJson& sync = json[array.m_Sync->m_Recovery ? "recovery" : "resync"];
    sync["done"] = SyncPosition(machine, array) / 2;
    if (array.m_Sync->m_Delayed) sync["delayed"] = true;
  }
  return json;
}

TJson ScriptJson(const SMachine& machine, const SScriptEntry& entry) {
  TJson json = {{"at", entry.m_At - machine.m_Time}};
  for (const auto& [key, value] : entry.m_Change.items()) {
    if (key != "at") json[key] = value;
  }
  return json;
}

}  // namespace

std::string MetadataText(const SArray& array) {
  return str(boost::format("%d.%d") % array.m_MajorVersion % array.m_MinorVersion);
}

std::string WriteMachine(const SMachine& original) {
  SMachine machine = original;
  // Nothing is open in the machine that is read again.
  machine.m_Files.clear();
  DropEmptyArrays(machine);
  TJson json = {{"clock", machine.m_ClockStart + machine.m_Time},
                {"seed", machine.m_Random},
                {"mdp_major", machine.m_MdpMajor},
                {"sync_speed", machine.m_Speed},
                {"process", machine.m_Process},
                {"sdparm", machine.m_HasSdparm}};
  for (const char* list : {"controllers", "disks", "arrays", "nodes", "script"}) json[list] = TJson::array();
  for (const SController& controller : machine.m_Controllers) {
    json["controllers"].push_back({{"name", controller.m_Name},
                                   {"pci", controller.m_Address},
                                   {"vendor", controller.m_Vendor},
                                   {"driver", controller.m_Driver}});
  }
  for (const SDisk& disk : machine.m_Disks) json["disks"].push_back(DiskJson(machine, disk));
  for (const SArray& array : machine.m_Arrays) json["arrays"].push_back(ArrayJson(machine, array));
  for (const SNode& node : machine.m_Nodes) {
    json["nodes"].push_back(
        {{"path", node.m_Path}, {"device", DeviceText(node.m_Device)}, {"mode", node.m_Mode & 07777U}});
  }
  for (const SScriptEntry& entry : machine.m_Script) json["script"].push_back(ScriptJson(machine, entry));
  // What was possible once need not be so any more, and is left out then.
  json["rehearsed"] = false;
  json["instances"] = machine.m_LastInstance;
  // The name in a superblock need not be text.
  return json.dump(2, ' ', false, TJson::error_handler_t::replace) + "\n";
}

}  // namespace Simulation
