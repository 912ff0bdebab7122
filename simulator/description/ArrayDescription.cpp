#include "simulator/description/ArrayDescription.h"

#include <linux/raid/md_u.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <boost/algorithm/hex.hpp>
#include <boost/format.hpp>
#include <climits>
#include <cstdio>
#include <set>

#include "simulator/description/DiskDescription.h"
#include "simulator/machine/MdSync.h"
#include "simulator/machine/Superblock.h"

namespace Simulation {
namespace {

constexpr int MOST_NUMBER = 0xfffff;  ///< of a device without partitions
constexpr std::uint64_t RESERVED_SECTORS = 256;
constexpr std::uint64_t SECTORS = 2;  ///< of a KiB

/// Name and number of the array's device: "md0" or "md_d0".
void ReadName(SMachine& machine, SArray& array, const TJson& json) {
  array.m_Name = json.get<std::string>();
  unsigned int number = 0;
  const bool partitionable = std::sscanf(array.m_Name.c_str(), "md_d%7u", &number) == 1;
  const bool read = partitionable || std::sscanf(array.m_Name.c_str(), "md%7u", &number) == 1;
  const unsigned int most = partitionable ? MOST_NUMBER / MINORS_PER_PARTITIONABLE : MOST_NUMBER;
  if (!read || number > most || array.m_Name != (partitionable ? "md_d" : "md") + std::to_string(number))
    Fail(json, "is neither \"md0\" to \"md1048575\" nor \"md_d0\" to \"md_d16383\"");
  array.m_Device = partitionable ? makedev(machine.m_MdpMajor, number * MINORS_PER_PARTITIONABLE)
                                 : makedev(MD_MAJOR_NUMBER, number);
  CheckDevices(machine, json);
}

std::string MetadataText(const SArray& array) {
  return str(boost::format("%d.%d") % array.m_MajorVersion % array.m_MinorVersion);
}

/// A program may have chosen a version that md then runs no array with.
void ReadMetadata(SMachine&, SArray& array, const TJson& json) {
  const auto text = json.get<std::string>();
  const int read = std::sscanf(text.c_str(), "%1d.%9d", &array.m_MajorVersion, &array.m_MinorVersion);
  const std::set<std::string> known{"0.90", "1.0", "1.1", "1.2"};
  if (read != 2 || MetadataText(array) != text || (array.m_Running && !known.contains(text)))
    Fail(json, "is no version such as \"0.90\", \"1.0\" or \"1.2\"");
}

/// The level, and what is usual for it.
void ReadLevel(SMachine&, SArray& array, const TJson& json) {
  // An array that was refused a start keeps what its superblocks said.
  const bool ofSuperblock = !array.m_Running && json.is_number();
  const SPersonality* personality = ofSuperblock ? nullptr : FindPersonality(json.get<std::string>());
  if (!ofSuperblock && personality == nullptr)
    Fail(json, "is none of \"linear\", \"raid0\", \"raid1\", \"raid4\", \"raid5\", \"raid6\" and \"raid10\"");
  array.m_Level = ofSuperblock ? NumberOf<int>(json, INT_MIN, INT_MAX) : personality->m_Level;
  array.m_Layout = ofSuperblock ? 0 : personality->m_Layout;
  array.m_ChunkSectors = array.m_Running && array.m_Level != 1 ? 64 * SECTORS : 0;
}

TJson WriteLevel(const SMachine&, const SArray& array) {
  const SPersonality* personality = FindPersonality(array.m_Level);
  return personality == nullptr ? TJson(array.m_Level) : TJson(personality->m_Name);
}

void ReadMemberState(SMachine&, SMember& member, const TJson& json) {
  const auto state = json.get<std::string>();
  member.m_InSync = state == "in sync";
  member.m_Faulty = state == "faulty";
  if (!member.m_InSync && !member.m_Faulty && state != "rebuilding" && state != "spare")
    Fail(json, "is none of \"in sync\", \"rebuilding\", \"spare\" and \"faulty\"");
  if (member.m_Slot >= 0 ? state == "spare" : member.m_InSync || state == "rebuilding")
    Fail(json, "does not go with the slot");
}

TJson WriteMemberState(const SMachine&, const SMember& member) {
  if (member.m_Faulty) return "faulty";
  return member.m_Slot < 0 ? "spare" : member.m_InSync ? "in sync" : "rebuilding";
}

const TKeys<SMember>& MemberKeys() {
  static const TKeys<SMember> keys = {
      NonEmpty("disk", &SMember::m_Name),
      Number("number", &SMember::m_Number, 0, MOST_MEMBERS - 1),
      Number("slot", &SMember::m_Slot, -1, MOST_MEMBERS - 1),
      Number("saved_slot", &SMember::m_SavedSlot, -1, MD_DISK_ROLE_MAX - 1),  // its superblock may say any
      {"state", ReadMemberState, WriteMemberState},
      Number("sectors", &SMember::m_Sectors, 0, SECTORS * MOST_SIZE),
      Number("recovered", &SMember::m_RecoveredSectors, 0, EVERYTHING),
      // A disk that is not there any more has the number that it had.
      {"gone", [](SMachine&, SMember& member, const TJson& json) { member.m_Device = ReadDevice(json); },
       [](const SMachine& machine, const SMember& member) {
         return IsThere(machine, member) ? TJson() : TJson(DeviceText(member.m_Device));
       }}};
  return keys;
}

/// Finds the disk or partition by its name, and what it leaves for data: all but a reserve, in whole chunks.
void FindDevice(SMachine& machine, const SArray& array, SMember& member, const TJson& json) {
  const auto block = FindBlock(machine, member.m_Name);
  if (!block || block->m_Disk == nullptr)
    Fail(json, "there is no disk or partition \"" + member.m_Name + "\"");
  if (!CanClaim(machine, *block)) Fail(json, member.m_Name + " is in use");
  member.m_Device = block->m_Device;
  member.m_Instance = block->Instance();
  if (json.is_object() && json.contains("sectors")) return;
  const std::uint64_t sector = SuperblockSector(block->m_Size);
  member.m_Sectors = sector < RESERVED_SECTORS ? 0 : sector - RESERVED_SECTORS;
  if (array.m_ChunkSectors != 0) member.m_Sectors -= member.m_Sectors % array.m_ChunkSectors;
  if (member.m_Sectors == 0) Fail(json, member.m_Name + " is too small for a member");
}

/// A member by name alone, with this number and slot, or as an object.
void AddMember(SMachine& machine, SArray& array, const TJson& json, int number, int slot, bool faulty) {
  SMember member;
  member.m_Number = number;
  if (json.is_string()) {
    member.m_Name = NonEmptyText(json);
    member.m_Slot = slot;
  } else {
    ReadKeys(MemberKeys(), machine, member, json);
  }
  if (json.is_string() || !json.contains("state")) member.m_InSync = member.m_Slot >= 0;
  member.m_Faulty |= faulty;
  if (member.m_Slot >= array.m_RaidDisks) Fail(json, "there are more members than raid_disks");
  // The array stands in the machine while its members are read, so that a disk that is named twice is in use.
  if (member.m_Device == 0) FindDevice(machine, array, member, json);
  for (const SMember& other : array.m_Members) {
    if (other.m_Device == member.m_Device) Fail(json, member.m_Name + " is there twice");
    if (other.m_Number == member.m_Number) Fail(json, "its number is that of " + other.m_Name);
    if (array.m_Running && member.m_Slot >= 0 && other.m_Slot == member.m_Slot)
      Fail(json, "its slot is that of " + other.m_Name);
  }
  if (member.m_Number >= MOST_MEMBERS) Fail(json, "there is no number left for it");
  array.m_Members.insert(array.m_Members.begin(), std::move(member));
}

/// In the order of their slots; null is an empty one.
void ReadMembers(SMachine& machine, SArray& array, const TJson& json) {
  const auto& members = ListOf(json);
  if (array.m_Running && array.m_RaidDisks == 0)
    array.m_RaidDisks = static_cast<int>(std::min<std::size_t>(members.size(), MOST_MEMBERS));
  for (int i = 0; std::cmp_less(i, members.size()); ++i) {
    const TJson& member = members[static_cast<std::size_t>(i)];
    if (!member.is_null()) AddMember(machine, array, member, i, array.m_Running ? i : -1, false);
  }
}

// The one that came first stands first here, as in a description that a person writes.
TJson WriteMembers(const SMachine& machine, const SArray& array) {
  TJson list = TJson::array();
  for (auto member = array.m_Members.rbegin(); member != array.m_Members.rend(); ++member)
    list.push_back(WriteKeys(MemberKeys(), machine, *member));
  return list;
}

/// Members without a slot; a saved array has them among the others.
SKey<SArray> Others(const char* name, bool faulty) {
  return {name,
          [faulty](SMachine& machine, SArray& array, const TJson& json) {
            for (const TJson& item : ListOf(json)) {
              int number = array.m_RaidDisks;
              for (const SMember& member : array.m_Members) number = std::max(number, member.m_Number + 1);
              AddMember(machine, array, item, number, -1, faulty);
            }
          },
          [](const SMachine&, const SArray&) { return TJson(); }};
}

void ReadUuid(SMachine&, SArray& array, const TJson& json) {
  try {
    const std::string bytes = boost::algorithm::unhex(json.get<std::string>());
    if (bytes.size() != array.m_Uuid.size()) throw boost::algorithm::not_enough_input();
    std::copy(bytes.begin(), bytes.end(), array.m_Uuid.begin());
  } catch (const boost::algorithm::hex_decode_error&) {
    Fail(json, "is not made of 32 hexadecimal digits");
  }
}

TJson WriteUuid(const SMachine&, const SArray& array) {
  return boost::algorithm::hex_lower(std::string(array.m_Uuid.begin(), array.m_Uuid.end()));
}

/// "resync" or "recovery": an object that tells how far it is.
SKey<SArray> Sync(const char* name, bool recovery) {
  static const TKeys<SSync> keys = {Number("done", &SSync::m_From, 0, MOST_SIZE, SECTORS),
                                    Value("delayed", &SSync::m_Delayed)};
  return {name,
          [recovery](SMachine& machine, SArray& array, const TJson& json) {
            if (array.m_Sync) Fail(json, "there is a resync already");
            SSync& sync = array.m_Sync.emplace();
            sync.m_Recovery = recovery;
            sync.m_Since = machine.m_Time;
            ReadKeys(keys, machine, sync, json);
          },
          [recovery](const SMachine& machine, const SArray& array) {
            if (!array.m_Sync || array.m_Sync->m_Recovery != recovery) return TJson();
            SSync now = *array.m_Sync;
            now.m_From = SyncPosition(machine, array);
            return WriteKeys(keys, machine, now);
          }};
}

void ReadArrayPartitions(SMachine& machine, SArray& array, const TJson& json) {
  if (major(array.m_Device) == MD_MAJOR_NUMBER)
    Fail(json, "only arrays named md_d0 and so on have them here");
  // How large the array is shows when all is read.
  array.m_Partitions = ReadPartitions(machine, json, MOST_SIZE, MINORS_PER_PARTITIONABLE - 1);
}

/// Sizes that follow from the members where the description gives none.
void CompleteSizes(SArray& array, const TJson& json) {
  std::uint64_t least = EVERYTHING;
  for (const SMember& member : array.m_Members)
    if (!member.m_Faulty && member.m_Sectors != 0) least = std::min(least, member.m_Sectors);
  if (!json.contains("size") && array.m_Level > 0 && least != EVERYTHING) array.m_DeviceSectors = least;
  if (array.m_DeviceSectors > SECTORS * MOST_SIZE) Fail(json, "its size is out of range");
  ComputeArraySize(array);
  const std::uint64_t size = array.m_ArraySectors / SECTORS;
  for (const SPartition& partition : array.m_Partitions)
    if (partition.m_Start + partition.m_Size > size) Fail(json["partitions"], "ends behind the array");
  if (!array.m_Mount.empty() && size == 0) Fail(json["mount"], "the array has no size");
}

void CheckSync(SMachine& machine, SArray& array, const TJson& json) {
  if (array.m_Sync) {
    const TJson& sync = json[array.m_Sync->m_Recovery ? "recovery" : "resync"];
    if (!FindPersonality(array.m_Level)->m_Syncs) Fail(sync, "only a mirror has one");
    if (array.m_Sync->m_From > array.m_DeviceSectors) Fail(sync, "is further than the members reach");
    if (array.m_Sync->m_Recovery &&
        std::none_of(array.m_Members.begin(), array.m_Members.end(), IsRebuilding))
      Fail(sync, "no member has the state \"rebuilding\"");
    // A saved machine tells what its superblocks say, which is less than has been done since.
    if (!array.m_Sync->m_Recovery && array.m_SyncedSectors == EVERYTHING)
      array.m_SyncedSectors = array.m_Sync->m_From;
  }
  CheckRecovery(machine, array);
}

}  // namespace

const TKeys<SArray>& ArrayKeys() {
  static const TKeys<SArray> keys = {
      {"name", ReadName, Value("", &SArray::m_Name).m_Write, true},
      {"instance",
       [](SMachine& machine, SArray& array, const TJson& json) {
         array.m_Instance = NumberOf<std::uint64_t>(json, 1, MOST_INSTANCE);
         CheckDevices(machine, json);
       },
       Value("", &SArray::m_Instance).m_Write},
      Value("running", &SArray::m_Running),
      Value("clean", &SArray::m_Clean),
      Value("broken", &SArray::m_Broken),
      Value("kept", &SArray::m_Kept),
      Number("speed", &SArray::m_Speed, 0, MOST_SIZE),
      {"metadata", ReadMetadata,
       [](const SMachine&, const SArray& array) { return TJson(MetadataText(array)); }},
      {"level", ReadLevel, WriteLevel},
      Number("chunk", &SArray::m_ChunkSectors, 0, UINT_MAX / SECTORS, SECTORS),
      Number("layout", &SArray::m_Layout, INT_MIN, INT_MAX),
      Number("raid_disks", &SArray::m_RaidDisks, 0, MOST_MEMBERS),
      {"members", ReadMembers, WriteMembers},
      Others("spares", false),
      Others("faulty", true),
      Number("created", &SArray::m_Created, 0, EVERYTHING),
      Number("updated", &SArray::m_Updated, 0, EVERYTHING),
      Number("events", &SArray::m_Events, 0, EVERYTHING),
      Value("set_name", &SArray::m_SetName),
      {"uuid", ReadUuid, WriteUuid},
      // Of an array that was refused a start: whatever its superblocks said, such as a negative number.
      Number("size", &SArray::m_DeviceSectors, 0, EVERYTHING / SECTORS, SECTORS),
      {"resync_from", Number("", &SArray::m_SyncedSectors, 0, EVERYTHING / SECTORS, SECTORS).m_Read,
       [](const SMachine&, const SArray& array) {
         return array.m_SyncedSectors == EVERYTHING ? TJson() : TJson(array.m_SyncedSectors / SECTORS);
       }},
      Value("mount", &SArray::m_Mount),
      {"partitions", ReadArrayPartitions,
       [](const SMachine& machine, const SArray& array) {
         return array.m_Partitions.empty() ? TJson() : WritePartitions(machine, array.m_Partitions);
       }},
      Sync("resync", false),
      Sync("recovery", true)};
  return keys;
}

void AddArrayFrom(SMachine& machine, const TJson& json) {
  SArray& array = machine.m_Arrays.emplace_back();
  array.m_Running = true;
  array.m_MajorVersion = 1;
  array.m_MinorVersion = 0;
  array.m_Speed = machine.m_Speed;
  if (!json.contains("uuid"))
    for (unsigned char& byte : array.m_Uuid) byte = static_cast<unsigned char>(NextRandom(machine));
  ReadKeys(ArrayKeys(), machine, array, json);
  TakeInstance(machine, array.m_Instance);
  if (!json.contains("created") && array.m_Running)
    array.m_Created = (machine.m_ClockStart + machine.m_Time) / 1000;
  if (!json.contains("updated")) array.m_Updated = array.m_Created;
  if (!json.contains("set_name") && array.m_Running) array.m_SetName = array.m_Name;
  if (!array.m_Running) {
    if (array.m_Sync || !array.m_Mount.empty() || !array.m_Partitions.empty())
      Fail(json, "an array that does not run has no mount, partitions, resync and recovery");
    return;
  }
  if (!json.contains("level")) Fail(json, "the key \"level\" is missing");
  if (array.m_RaidDisks == 0) Fail(json, "an array that runs needs \"members\" or \"raid_disks\"");
  CompleteSizes(array, json);
  CheckSync(machine, array, json);
  // A machine that was saved brings its superblocks with the disks' data.
  if (!json.contains("uuid")) UpdateSuperblocks(machine, array);
  ++machine.m_MdEvents;
}

}  // namespace Simulation
