#include <linux/raid/md_u.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdio>

#include "simulator/description/MachineDescription.h"
#include "simulator/machine/MdSync.h"
#include "simulator/machine/Superblock.h"

namespace Simulation {
namespace {

constexpr std::uint64_t MOST_KIB = std::uint64_t{1} << 40;
constexpr int MOST_NUMBER = 0xfffff;  ///< of a device without partitions
constexpr std::uint64_t RESERVED_SECTORS = 256;

/// Name and number of the array's device: "md0" or "md_d0".
void ReadName(const SMachine& machine, SArray& array, const CJsonReader& reader) {
  array.m_Name = reader.Text();
  unsigned int number = 0;
  const bool partitionable = std::sscanf(array.m_Name.c_str(), "md_d%7u", &number) == 1;
  const bool read = partitionable || std::sscanf(array.m_Name.c_str(), "md%7u", &number) == 1;
  const unsigned int most = partitionable ? MOST_NUMBER / MINORS_PER_PARTITIONABLE : MOST_NUMBER;
  if (!read || number > most || array.m_Name != (partitionable ? "md_d" : "md") + std::to_string(number)) {
    reader.Fail("is neither \"md0\" to \"md1048575\" nor \"md_d0\" to \"md_d16383\"");
  }
  array.m_Device = partitionable ? makedev(machine.m_MdpMajor, number * MINORS_PER_PARTITIONABLE)
                                 : makedev(MD_MAJOR_NUMBER, number);
}

void ReadMetadata(SArray& array, const CJsonReader& reader) {
  const std::string text = reader.TextOr("metadata", "1.0");
  for (const auto& [name, majorVersion, minorVersion] :
       {std::tuple{"0.90", 0, 90}, {"1.0", 1, 0}, {"1.1", 1, 1}, {"1.2", 1, 2}}) {
    if (text != name) continue;
    array.m_MajorVersion = majorVersion;
    array.m_MinorVersion = minorVersion;
    return;
  }
  // A program may have chosen a version that md then runs no array with.
  const auto chosen = std::sscanf(text.c_str(), "%1d.%9d", &array.m_MajorVersion, &array.m_MinorVersion);
  if (array.m_Running || chosen != 2 || MetadataText(array) != text)
    reader.Need("metadata").Fail("is none of \"0.90\", \"1.0\", \"1.1\" and \"1.2\"");
}

/// Data sectors that the plain layout leaves on a member.
std::uint64_t DataSectors(const SBlock& block, std::uint64_t chunkSectors) {
  const std::uint64_t sector = SuperblockSector(block.m_Size);
  const std::uint64_t sectors = sector < RESERVED_SECTORS ? 0 : sector - RESERVED_SECTORS;
  return chunkSectors == 0 ? sectors : sectors - sectors % chunkSectors;
}

int FreeNumber(const SArray& array) {
  int number = array.m_RaidDisks;
  for (const SMember& member : array.m_Members) number = std::max(number, member.m_Number + 1);
  return number;
}

void ReadMemberState(SMember& member, const CJsonReader& reader) {
  const std::string state = reader.Text();
  member.m_InSync = state == "in sync";
  member.m_Faulty = state == "faulty";
  if (!member.m_InSync && !member.m_Faulty && state != "rebuilding" && state != "spare") {
    reader.Fail("is none of \"in sync\", \"rebuilding\", \"spare\" and \"faulty\"");
  }
  const bool needsSlot = member.m_InSync || state == "rebuilding";
  if (member.m_Slot >= 0 ? state == "spare" : needsSlot) reader.Fail("does not go with the slot");
}

/// Finds the disk or partition by its name, and what it leaves for data.
void FindDevice(SMachine& machine, const SArray& array, SMember& member, const CJsonReader& disk) {
  const auto block = FindBlock(machine, member.m_Name);
  if (!block || block->m_Disk == nullptr)
    disk.Fail("there is no disk or partition \"" + member.m_Name + "\"");
  if (!CanClaim(machine, *block)) disk.Fail(member.m_Name + " is in use");
  member.m_Device = block->m_Device;
  member.m_Instance = block->Instance();
  member.m_Sectors = DataSectors(*block, array.m_ChunkSectors);
}

/// A member by name alone, or as an object. `slot` is where one without an own slot goes.
SMember ReadMember(SMachine& machine, const SArray& array, const CJsonReader& reader, int number, int slot) {
  SMember member;
  const bool brief = reader.IsText();
  if (!brief) {
    reader.OnlyKeys({"disk", "number", "slot", "saved_slot", "state", "sectors", "recovered", "gone"});
    member.m_Number =
        static_cast<int>(reader.NumberOr("number", static_cast<std::uint64_t>(number), 0, MOST_MEMBERS - 1));
    const auto own = reader.Find("slot");
    member.m_Slot = own ? own->Integer(-1, array.m_RaidDisks - 1) : -1;
    if (const auto saved = reader.Find("saved_slot")) member.m_SavedSlot = saved->Integer(-1, MOST_MEMBERS);
    member.m_RecoveredSectors = reader.NumberOr("recovered", 0, 0, EVERYTHING);
  } else {
    member.m_Number = number;
    member.m_Slot = slot;
    member.m_InSync = slot >= 0;
  }
  const CJsonReader disk = brief ? reader : reader.Need("disk");
  member.m_Name = disk.Text();
  const auto gone = brief ? std::nullopt : reader.Find("gone");
  if (gone) {
    member.m_Device = ReadDevice(*gone);
  } else {
    FindDevice(machine, array, member, disk);
  }
  if (const auto sectors = brief ? std::nullopt : reader.Find("sectors")) {
    member.m_Sectors = sectors->Number(0, 2 * MOST_KIB);
  } else if (!gone && member.m_Sectors == 0) {
    disk.Fail(member.m_Name + " is too small for a member");
  }
  if (!brief) {
    const auto state = reader.Find("state");
    if (state) ReadMemberState(member, *state);
    if (!state) member.m_InSync = member.m_Slot >= 0;
  }
  return member;
}

void AddMember(SArray& array, SMember member, const CJsonReader& reader) {
  for (const SMember& other : array.m_Members) {
    if (other.m_Device == member.m_Device) reader.Fail(member.m_Name + " is there twice");
    if (other.m_Number == member.m_Number) reader.Fail("its number is that of " + other.m_Name);
    if (array.m_Running && member.m_Slot >= 0 && other.m_Slot == member.m_Slot)
      reader.Fail("its slot is that of " + other.m_Name);
  }
  if (member.m_Number >= MOST_MEMBERS) reader.Fail("there is no number left for it");
  array.m_Members.insert(array.m_Members.begin(), std::move(member));
}

void ReadMembers(SMachine& machine, SArray& array, const CJsonReader& reader) {
  const auto members = reader.ItemsOf("members");
  if (array.m_Running) {
    const auto disks = reader.NumberOr("raid_disks", members.size(), LeastDisks(array.m_Level), MOST_MEMBERS);
    array.m_RaidDisks = static_cast<int>(disks);
  } else {
    array.m_RaidDisks = static_cast<int>(reader.NumberOr("raid_disks", 0, 0, MOST_MEMBERS));
  }
  // The array stands in the machine while its members are read, so that a disk that is named twice is in use.
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members[i].IsNull()) continue;
    const int slot = array.m_Running ? static_cast<int>(i) : -1;
    if (members[i].IsText() && slot >= array.m_RaidDisks)
      members[i].Fail("there are more members than raid_disks");
    AddMember(array, ReadMember(machine, array, members[i], static_cast<int>(i), slot), members[i]);
  }
  for (const char* list : {"spares", "faulty"}) {
    for (const CJsonReader& item : reader.ItemsOf(list)) {
      SMember member = ReadMember(machine, array, item, FreeNumber(array), -1);
      member.m_Faulty = list == std::string("faulty");
      AddMember(array, std::move(member), item);
    }
  }
}

void ReadUuid(SMachine& machine, SArray& array, const CJsonReader& reader) {
  const auto given = reader.Find("uuid");
  const std::string text = given ? given->Text() : "";
  if (given && (text.size() != 32 || text.find_first_not_of("0123456789abcdef") != std::string::npos)) {
    given->Fail("is not made of 32 hexadecimal digits");
  }
  for (std::size_t i = 0; i < array.m_Uuid.size(); ++i) {
    array.m_Uuid[i] = static_cast<unsigned char>(given ? std::stoul(text.substr(2 * i, 2), nullptr, 16)
                                                       : NextRandom(machine) & 0xffU);
  }
}

/// "resync" or "recovery": an object that tells how far it is.
void ReadSync(SMachine& machine, SArray& array, const CJsonReader& reader, bool recovery) {
  reader.OnlyKeys({"done", "delayed"});
  if (array.m_Sync) reader.Fail("there is a resync already");
  const bool rebuilds = std::any_of(
      array.m_Members.begin(), array.m_Members.end(),
      [](const SMember& member) { return member.m_Slot >= 0 && !member.m_InSync && !member.m_Faulty; });
  if (!FindPersonality(array.m_Level)->m_Syncs) reader.Fail("a level without redundancy has none");
  if (recovery && !rebuilds) reader.Fail("no member has the state \"rebuilding\"");
  const std::uint64_t done = reader.NumberOr("done", 0, 0, array.m_DeviceSectors / 2) * 2;
  // A saved machine tells what its superblocks say, which is less than has been done since.
  if (!recovery && array.m_SyncedSectors == EVERYTHING) array.m_SyncedSectors = done;
  array.m_Sync = SSync{recovery, reader.FlagOr("delayed", false), done, machine.m_Time};
}

void ReadGeometry(SArray& array, const CJsonReader& reader) {
  const auto level = reader.Find("level");
  if (level && !array.m_Running && !level->IsText()) {
    array.m_Level = level->Integer(INT_MIN, INT_MAX);
  } else if (level) {
    const SPersonality* personality = FindPersonality(level->Text());
    if (personality == nullptr) {
      level->Fail(
          "is none of \"linear\", \"raid0\", \"raid1\", \"raid4\", \"raid5\", \"raid6\" and \"raid10\"");
    }
    array.m_Level = personality->m_Level;
  } else if (array.m_Running) {
    reader.Need("level");
  }
  const bool striped = array.m_Running && array.m_Level != 1;
  array.m_ChunkSectors = reader.NumberOr("chunk", striped ? 64 : 0, 0, UINT_MAX / 2) * 2;
  const int usual = array.m_Level == 10 ? 0x102 : array.m_Level == 5 || array.m_Level == 6 ? 2 : 0;
  const auto layout = reader.Find("layout");
  array.m_Layout = layout ? layout->Integer(INT_MIN, INT_MAX) : usual;
}

void ReadSizes(SArray& array, const CJsonReader& reader) {
  std::uint64_t least = EVERYTHING;
  for (const SMember& member : array.m_Members) {
    if (!member.m_Faulty && member.m_Sectors != 0) least = std::min(least, member.m_Sectors);
  }
  const bool common = array.m_Running && FindPersonality(array.m_Level)->m_Syncs;
  const std::uint64_t usual = common && least != EVERYTHING ? least : 0;
  const auto own = reader.Find("size");
  // An array that was refused a start keeps what its superblocks said.
  array.m_DeviceSectors = own ? own->Number(0, array.m_Running ? MOST_KIB : EVERYTHING / 2) * 2 : usual;
}

/// What only an array that runs can have.
void ReadActivity(SMachine& machine, SArray& array, const CJsonReader& reader) {
  if (const auto partitions = reader.Find("partitions")) {
    if (major(array.m_Device) == MD_MAJOR_NUMBER)
      partitions->Fail("only arrays named md_d0 and so on have them here");
    array.m_Partitions =
        ReadPartitions(partitions->Items(), array.m_ArraySectors / 2, MINORS_PER_PARTITIONABLE - 1);
  }
  array.m_Mount = reader.TextOr("mount", "");
  if (!array.m_Mount.empty() && array.m_ArraySectors == 0) reader.Need("mount").Fail("the array has no size");
  if (const auto resync = reader.Find("resync")) ReadSync(machine, array, *resync, false);
  if (const auto recovery = reader.Find("recovery")) ReadSync(machine, array, *recovery, true);
  CheckRecovery(machine, array);
}

}  // namespace

void AddArrayFrom(SMachine& machine, const CJsonReader& reader) {
  reader.OnlyKeys({"name",     "level", "metadata",   "chunk",      "layout",  "raid_disks", "size",
                   "running",  "clean", "broken",     "members",    "spares",  "faulty",     "resync",
                   "recovery", "speed", "kept",       "created",    "updated", "events",     "uuid",
                   "set_name", "mount", "partitions", "resync_from"});
  machine.m_Arrays.emplace_back();
  SArray& array = machine.m_Arrays.back();
  ReadName(machine, array, reader.Need("name"));
  CheckDevices(machine, reader);
  array.m_Instance = ++machine.m_LastInstance;
  array.m_Running = reader.FlagOr("running", true);
  array.m_Clean = reader.FlagOr("clean", true);
  array.m_Broken = reader.FlagOr("broken", false);
  array.m_Kept = reader.FlagOr("kept", !array.m_Running && !reader.Find("members"));
  array.m_Speed = reader.NumberOr("speed", machine.m_Speed, 0, MOST_KIB);
  ReadMetadata(array, reader);
  ReadGeometry(array, reader);
  ReadMembers(machine, array, reader);
  const std::uint64_t now = (machine.m_ClockStart + machine.m_Time) / 1000;
  array.m_Created = reader.NumberOr("created", array.m_Kept ? 0 : now, 0, EVERYTHING);
  array.m_Updated = reader.NumberOr("updated", array.m_Created, 0, EVERYTHING);
  array.m_Events = reader.NumberOr("events", 0, 0, EVERYTHING);
  array.m_SetName = reader.TextOr("set_name", array.m_Running ? array.m_Name : "");
  ReadUuid(machine, array, reader);
  ReadSizes(array, reader);
  if (const auto from = reader.Find("resync_from"))
    array.m_SyncedSectors = from->Number(0, EVERYTHING / 2) * 2;
  if (!array.m_Running) {
    for (const char* key : {"mount", "partitions", "resync", "recovery"})
      if (const auto activity = reader.Find(key)) activity->Fail("the array does not run");
    return;
  }
  ComputeArraySize(array);
  ReadActivity(machine, array, reader);
  // A machine that was saved brings its superblocks with the disks' data.
  if (!reader.Find("uuid")) UpdateSuperblocks(machine, array);
  ++machine.m_MdEvents;
}

}  // namespace Simulation
