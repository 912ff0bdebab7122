#include "simulator/machine/MdDriver.h"

#include <linux/ioctl.h>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "simulator/machine/MdSync.h"
#include "simulator/machine/Superblock.h"

namespace Simulation {
namespace {

constexpr std::uint16_t FIRST_SPECIAL_ROLE = MD_DISK_ROLE_MAX;

SMember* FindMember(SArray& array, int number) {
  const auto found = std::find_if(array.m_Members.begin(), array.m_Members.end(),
                                  [number](const SMember& member) { return member.m_Number == number; });
  return found == array.m_Members.end() ? nullptr : &*found;
}

std::uint64_t RoundDown(std::uint64_t value, std::uint64_t unit) {
  return unit == 0 ? value : value - value % unit;
}

template <typename TRecord>
int CopyIn(TRecord& record, const void* argument) {
  if (argument == nullptr) return EFAULT;
  std::memcpy(&record, argument, sizeof(record));
  return 0;
}

template <typename TRecord>
int CopyOut(const TRecord& record, void* argument) {
  if (argument == nullptr) return EFAULT;
  std::memcpy(argument, &record, sizeof(record));
  return 0;
}

/// The kernel takes device numbers in requests as a 32-bit number.
dev_t DecodeDevice(const void* argument) {
  const auto number = static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(argument));
  return makedev((number & 0xfff00U) >> 8, (number & 0xffU) | ((number >> 12) & 0xfff00U));
}

int GetArrayInfo(const SArray& array, void* argument) {
  if (array.m_RaidDisks == 0) return ENODEV;
  mdu_array_info_t info{};
  const bool partitionable = major(array.m_Device) != MD_MAJOR_NUMBER;
  info.major_version = array.m_MajorVersion;
  info.minor_version = array.m_MinorVersion;
  info.patch_version = MD_PATCHLEVEL_VERSION;
  info.ctime = static_cast<unsigned int>(array.m_Created);
  info.level = array.m_Level;
  const std::uint64_t size = array.m_DeviceSectors / 2;
  info.size = static_cast<std::uint64_t>(static_cast<int>(size)) == size ? static_cast<int>(size) : -1;
  info.raid_disks = array.m_RaidDisks;
  info.md_minor = static_cast<int>(minor(array.m_Device) / (partitionable ? MINORS_PER_PARTITIONABLE : 1));
  info.utime = static_cast<unsigned int>(array.m_Updated);
  info.state = array.m_Clean ? 1 << MD_SB_CLEAN : 0;
  for (const SMember& member : array.m_Members) {
    ++info.nr_disks;
    ++(member.m_Faulty ? info.failed_disks : info.working_disks);
    if (!member.m_Faulty) ++(member.m_InSync ? info.active_disks : info.spare_disks);
  }
  info.layout = array.m_Layout;
  info.chunk_size = static_cast<int>(array.m_ChunkSectors * SECTOR);
  return CopyOut(info, argument);
}

int GetDiskInfo(SArray& array, void* argument) {
  if (array.m_RaidDisks == 0) return ENODEV;
  mdu_disk_info_t info{};
  if (const int error = CopyIn(info, argument)) return error;
  const SMember* member = FindMember(array, info.number);
  info.major = member == nullptr ? 0 : static_cast<int>(major(member->m_Device));
  info.minor = member == nullptr ? 0 : static_cast<int>(minor(member->m_Device));
  info.raid_disk = member == nullptr ? -1 : member->m_Slot;
  if (member == nullptr) {
    info.state = 1 << MD_DISK_REMOVED;
  } else if (member->m_Faulty) {
    info.state = 1 << MD_DISK_FAULTY;
  } else {
    info.state = member->m_InSync ? (1 << MD_DISK_ACTIVE) | (1 << MD_DISK_SYNC) : 0;
  }
  return CopyOut(info, argument);
}

/// Only the choice of a metadata format is simulated: an array gets its geometry from superblocks.
int SetArrayInfo(SMachine& machine, SArray& array, const void* argument) {
  mdu_array_info_t info{};
  if (argument != nullptr) std::memcpy(&info, argument, sizeof(info));
  if (!array.m_Members.empty() || array.m_RaidDisks != 0) return EBUSY;
  if (info.raid_disks != 0 || info.major_version < 0 || info.major_version > 1) return EINVAL;
  array.m_MajorVersion = info.major_version;
  array.m_MinorVersion = info.minor_version;
  array.m_Created = (machine.m_ClockStart + machine.m_Time) / 1000;
  return 0;
}

struct SImported {
  int m_Error{};
  SMember m_Member;
  SSuperblock m_Superblock;
};

/// Claims a device for md and reads its superblock.
SImported Import(SMachine& machine, const SArray& array, dev_t device) {
  const auto block = FindBlock(machine, device);
  if (!block || (block->m_Disk != nullptr && block->m_Disk->m_State != "running")) return {ENXIO, {}, {}};
  if (!CanClaim(machine, *block)) return {EBUSY, {}, {}};
  if (array.m_MajorVersion != 1 || array.m_MinorVersion != 0) return {EINVAL, {}, {}};
  const SLoaded loaded = LoadSuperblock(*block);
  SMember member;
  member.m_Name = block->m_Name;
  member.m_Device = device;
  member.m_Instance = block->Instance();
  member.m_Number = static_cast<int>(loaded.m_Superblock.Head().dev_number);
  member.m_Sectors = loaded.m_Superblock.Head().data_size;
  return {loaded.m_Error, std::move(member), loaded.m_Superblock};
}

/// Takes a device into the array's list. One that has no number gets the first that is free.
int Bind(SArray& array, SMember member) {
  if (FindMember(array, member.m_Device) != nullptr) return EEXIST;
  if (array.m_DeviceSectors == 0 || member.m_Sectors < array.m_DeviceSectors) {
    if (array.m_Running && array.m_Level > 0) return ENOSPC;
    if (!array.m_Running) array.m_DeviceSectors = member.m_Sectors;
  }
  if (member.m_Number < 0) {
    member.m_Number = array.m_RaidDisks;
    while (FindMember(array, member.m_Number) != nullptr) ++member.m_Number;
  }
  if (FindMember(array, member.m_Number) != nullptr || member.m_Number >= MOST_MEMBERS) return EBUSY;
  array.m_Members.insert(array.m_Members.begin(), std::move(member));
  return 0;
}

/// Do two superblocks belong to the same array?
bool IsSameSet(const mdp_superblock_1& one, const mdp_superblock_1& other) {
  return std::equal(std::begin(one.set_uuid), std::end(one.set_uuid), other.set_uuid) &&
         one.level == other.level && one.layout == other.layout && one.chunksize == other.chunksize;
}

int AddToUnstarted(SMachine& machine, SArray& array, dev_t device) {
  const SImported imported = Import(machine, array, device);
  if (imported.m_Error != 0) return imported.m_Error;
  if (!array.m_Members.empty()) {
    const auto first = BlockOf(machine, array.m_Members.front());
    if (!first) return EINVAL;
    const SLoaded other = LoadSuperblock(*first);
    if (other.m_Error != 0 || !IsSameSet(imported.m_Superblock.Head(), other.m_Superblock.Head()))
      return EINVAL;
  }
  return Bind(array, imported.m_Member);
}

int AddToRunning(SMachine& machine, SArray& array, const mdu_disk_info_t& info) {
  const SPersonality* personality = FindPersonality(array.m_Level);
  // Striping takes no disks at all; a concatenation takes only one that was made to be its next slot.
  if (array.m_Level == 0) return EINVAL;
  SImported imported = Import(
      machine, array, makedev(static_cast<unsigned int>(info.major), static_cast<unsigned int>(info.minor)));
  if (imported.m_Error != 0) return imported.m_Error;
  SMember& member = imported.m_Member;
  const std::uint16_t role = imported.m_Superblock.Role(member.m_Number);
  if (std::cmp_greater_equal(member.m_Number, imported.m_Superblock.Head().max_dev)) member.m_Number = -1;
  const bool fresh = imported.m_Superblock.Head().events + 1 >= array.m_Events;
  if (fresh && role < FIRST_SPECIAL_ROLE) member.m_SavedSlot = role;
  if ((info.state & (1 << MD_DISK_SYNC)) != 0 && member.m_SavedSlot != info.raid_disk) return EINVAL;
  if (const int error = Bind(array, member)) return error;
  if (!personality->m_Syncs) {
    array.m_Members.erase(array.m_Members.begin());
    return EINVAL;
  }
  ++machine.m_MdEvents;
  CheckRecovery(machine, array);
  UpdateSuperblocks(machine, array);
  return 0;
}

int AddNewDisk(SMachine& machine, SArray& array, const mdu_disk_info_t& info) {
  const dev_t device = makedev(static_cast<unsigned int>(info.major), static_cast<unsigned int>(info.minor));
  if (array.m_RaidDisks == 0) return AddToUnstarted(machine, array, device);
  return array.m_Running ? AddToRunning(machine, array, info) : EINVAL;
}

/// Takes the geometry from the newest superblock, and from each superblock its device's place; devices with
/// older ones are thrown out.
int Analyse(SMachine& machine, SArray& array) {
  std::map<dev_t, SSuperblock> superblocks;
  const SSuperblock* newest = nullptr;
  for (const SMember& member : array.m_Members) {
    const auto block = BlockOf(machine, member);
    const SLoaded loaded = block ? LoadSuperblock(*block) : SLoaded{ENXIO, {}};
    if (loaded.m_Error != 0) continue;
    const auto entry = superblocks.emplace(member.m_Device, loaded.m_Superblock).first;
    if (newest == nullptr || entry->second.Head().events > newest->Head().events) newest = &entry->second;
  }
  if (newest == nullptr) return EINVAL;
  const mdp_superblock_1& head = newest->Head();
  if (head.raid_disks < 1 || head.raid_disks > MOST_MEMBERS) return EINVAL;
  array.m_Level = static_cast<int>(head.level);
  // A striped array's superblock tells its layout only when it says so.
  const bool unknownLayout = array.m_Level == 0 && (head.feature_map & MD_FEATURE_RAID0_LAYOUT) == 0;
  array.m_Layout = unknownLayout ? -1 : static_cast<int>(head.layout);
  array.m_ChunkSectors = head.chunksize;
  array.m_RaidDisks = static_cast<int>(head.raid_disks);
  array.m_DeviceSectors = head.size;
  array.m_Created = head.ctime;
  array.m_Updated = head.utime;
  array.m_Events = head.events;
  array.m_SyncedSectors = head.resync_offset;
  std::copy(std::begin(head.set_uuid), std::end(head.set_uuid), array.m_Uuid.begin());
  array.m_SetName.assign(head.set_name, strnlen(head.set_name, sizeof(head.set_name)));
  const auto isStale = [&](const SMember& member) {
    const auto superblock = superblocks.find(member.m_Device);
    return superblock == superblocks.end() ||
           (superblock->second.Role(member.m_Number) < FIRST_SPECIAL_ROLE &&
            superblock->second.Head().events + 1 < array.m_Events);
  };
  array.m_Members.erase(std::remove_if(array.m_Members.begin(), array.m_Members.end(), isStale),
                        array.m_Members.end());
  for (SMember& member : array.m_Members) {
    const SSuperblock& superblock = superblocks.at(member.m_Device);
    const std::uint16_t role = superblock.Role(member.m_Number);
    member.m_Faulty = role == MD_DISK_ROLE_FAULTY;
    member.m_Slot = role < array.m_RaidDisks ? role : -1;
    member.m_SavedSlot = member.m_Slot;
    member.m_InSync = member.m_Slot >= 0 && (superblock.Head().feature_map & MD_FEATURE_RECOVERY_OFFSET) == 0;
    if (member.m_Slot >= 0 && !member.m_InSync) member.m_RecoveredSectors = superblock.Head().recovery_offset;
  }
  return 0;
}

bool SharesSlot(const SArray& array) {
  std::set<int> taken;
  return std::any_of(array.m_Members.begin(), array.m_Members.end(), [&](const SMember& member) {
    return member.m_Slot >= 0 && !taken.insert(member.m_Slot).second;
  });
}

/// What the level itself refuses when it is started.
int StartPersonality(SArray& array) {
  // md needs a module for each level, and those of others are not there.
  if (array.m_Level < -1 || array.m_Level > 1) return EINVAL;
  if (!IsEnough(array) || SharesSlot(array)) return array.m_Level == -1 ? -1 : EINVAL;
  if (array.m_Level == 0 && array.m_ChunkSectors == 0) return EINVAL;
  if (array.m_Level != 1) {
    for (SMember& member : array.m_Members) {
      member.m_Sectors = RoundDown(member.m_Sectors, array.m_ChunkSectors);
    }
  }
  return 0;
}

bool OverlapsMetadata(SMachine& machine, const SArray& array) {
  return std::any_of(array.m_Members.begin(), array.m_Members.end(), [&](const SMember& member) {
    const auto block = BlockOf(machine, member);
    return !block || array.m_DeviceSectors > SuperblockSector(block->m_Size);
  });
}

}  // namespace

int RunArray(SMachine& machine, SArray& array) {
  if (array.m_Members.empty()) return EINVAL;
  if (array.m_Running) return EBUSY;
  if (array.m_RaidDisks == 0) {
    if (const int error = Analyse(machine, array)) return error;
  }
  if (OverlapsMetadata(machine, array)) return EINVAL;
  if (const int error = StartPersonality(array)) return error;
  array.m_Running = true;
  array.m_Clean = true;
  ComputeArraySize(array);
  if (array.m_Level == 1 && array.m_RaidDisks - DegradedBy(array) == 1) array.m_SyncedSectors = EVERYTHING;
  ++machine.m_MdEvents;
  CheckRecovery(machine, array);
  if (FindPersonality(array.m_Level)->m_Syncs) UpdateSuperblocks(machine, array);
  return 0;
}

int StopArray(SMachine& machine, SArray& array, std::size_t openersAllowed) {
  if (array.m_Closing || (array.m_Running && Openers(machine, array) > openersAllowed)) return EBUSY;
  if (array.m_Sync) {
    const std::uint64_t position = SyncPosition(machine, array);
    for (SMember& member : array.m_Members) member.m_RecoveredSectors = position;
    if (!array.m_Sync->m_Recovery) array.m_SyncedSectors = position;
    array.m_Sync.reset();
  }
  if (array.m_Running && FindPersonality(array.m_Level)->m_Syncs) UpdateSuperblocks(machine, array);
  SArray empty;
  empty.m_Name = array.m_Name;
  empty.m_Device = array.m_Device;
  empty.m_Instance = array.m_Instance;
  empty.m_Speed = machine.m_Speed;
  empty.m_Kept = false;
  empty.m_Closing = true;
  array = std::move(empty);
  ++machine.m_MdEvents;
  EndSyncs(machine);
  return 0;
}

int RemoveDisk(SMachine& machine, SArray& array, dev_t device) {
  if (array.m_RaidDisks == 0 || !array.m_Running) return ENODEV;
  const SMember* member = FindMember(array, device);
  if (member == nullptr) return ENXIO;
  if (member->m_Slot >= 0) return EBUSY;
  array.m_Members.erase(array.m_Members.begin() + (member - array.m_Members.data()));
  ++machine.m_MdEvents;
  UpdateSuperblocks(machine, array);
  return 0;
}

int MdIoctl(SMachine& machine, SArray& array, unsigned long request, void* argument) {
  switch (request) {
    case RAID_VERSION:
      return CopyOut(mdu_version_t{MD_MAJOR_VERSION, MD_MINOR_VERSION, MD_PATCHLEVEL_VERSION}, argument);
    case GET_ARRAY_INFO:
      return GetArrayInfo(array, argument);
    case GET_DISK_INFO:
      return GetDiskInfo(array, argument);
    case SET_DISK_FAULTY:
      return FailDisk(machine, array, DecodeDevice(argument));
    default:
      break;
  }
  const auto configure = [&]() -> int {
    switch (request) {
      case SET_ARRAY_INFO:
        return SetArrayInfo(machine, array, argument);
      case ADD_NEW_DISK: {
        mdu_disk_info_t info{};
        const int error = CopyIn(info, argument);
        return error != 0 ? error : AddNewDisk(machine, array, info);
      }
      case RUN_ARRAY:
        return RunArray(machine, array);
      case STOP_ARRAY:
        return StopArray(machine, array, 1);
      case HOT_REMOVE_DISK:
        return RemoveDisk(machine, array, DecodeDevice(argument));
      default:
        return ENOTTY;
    }
  };
  const int error = configure();
  if (error != EINVAL && error != ENOTTY) array.m_Kept = false;
  return error;
}

void OpenMdDevice(SMachine& machine, dev_t device) {
  const bool partitionable = major(device) == machine.m_MdpMajor;
  if (!partitionable && major(device) != MD_MAJOR_NUMBER) return;
  // A partition's number brings its array into being too.
  const unsigned int number = minor(device) / (partitionable ? MINORS_PER_PARTITIONABLE : 1);
  SArray array;
  array.m_Name = (partitionable ? "md_d" : "md") + std::to_string(number);
  if (FindArray(machine, array.m_Name) != nullptr) return;
  array.m_Device = makedev(major(device), number * (partitionable ? MINORS_PER_PARTITIONABLE : 1));
  array.m_Instance = ++machine.m_LastInstance;
  array.m_Speed = machine.m_Speed;
  machine.m_Arrays.push_back(std::move(array));
}

void DropEmptyArrays(SMachine& machine) {
  const auto isEmpty = [&](const SArray& array) {
    return array.m_RaidDisks == 0 && array.m_Members.empty() && array.m_Created == 0 && !array.m_Kept &&
           Openers(machine, array) == 0;
  };
  machine.m_Arrays.erase(std::remove_if(machine.m_Arrays.begin(), machine.m_Arrays.end(), isEmpty),
                         machine.m_Arrays.end());
}

}  // namespace Simulation
