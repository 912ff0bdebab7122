#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>

#include "simulator/description/MachineDescription.h"
#include "simulator/machine/MachineError.h"
#include "simulator/machine/MdDriver.h"
#include "simulator/machine/MdSync.h"

namespace Simulation {
namespace {

constexpr std::uint64_t MOST_SPEED = std::uint64_t{1} << 40;

SDisk& TheDisk(SMachine& machine, const CJsonReader& reader, const std::string& name) {
  SDisk* disk = FindDisk(machine, name);
  if (disk == nullptr) reader.Fail("there is no disk \"" + name + "\"");
  return *disk;
}

SArray& TheArray(SMachine& machine, const CJsonReader& reader, const std::string& name) {
  SArray* array = FindArray(machine, name);
  if (array == nullptr || !array->m_Running) reader.Fail("there is no running array \"" + name + "\"");
  return *array;
}

SBlock TheBlock(SMachine& machine, const CJsonReader& reader, const std::string& name) {
  const auto block = FindBlock(machine, name);
  if (!block) reader.Fail("there is no device \"" + name + "\"");
  return *block;
}

void Succeed(const CJsonReader& reader, int error) {
  if (error != 0) reader.Fail(std::string("the kernel refuses: ") + std::strerror(error));
}

/// Calls `change(array, device of the member)` for {"array": ..., "disk": ...}.
template <typename TChange>
void ChangeMember(SMachine& machine, const CJsonReader& reader, TChange change) {
  reader.OnlyKeys({"array", "disk"});
  SArray& array = TheArray(machine, reader, reader.Need("array").Text());
  const std::string name = reader.Need("disk").Text();
  for (const SMember& member : array.m_Members) {
    if (member.m_Name == name) return Succeed(reader, change(array, member.m_Device));
  }
  reader.Need("disk").Fail(name + " is no member of " + array.m_Name);
}

void RemoveWholeDisk(SMachine& machine, const CJsonReader& reader) {
  const SDisk& disk = TheDisk(machine, reader, reader.Text());
  const std::uint64_t instance = disk.m_Instance;
  machine.m_Disks.erase(machine.m_Disks.begin() + (&disk - machine.m_Disks.data()));
  // md learns of it by the next input or output; where a resync runs that is at once.
  for (SArray& array : machine.m_Arrays) {
    for (std::size_t i = 0; i < array.m_Members.size(); ++i) {
      if (array.m_Members[i].m_Instance != instance) continue;
      if (array.m_Sync) FailDisk(machine, array, array.m_Members[i].m_Device);
      array.m_Members[i].m_Instance = 0;
    }
  }
}

/// An administrator adds a disk as a spare: it gets the array's superblock and is handed to md.
void AddMember(SMachine& machine, const CJsonReader& reader) {
  reader.OnlyKeys({"array", "disk"});
  SArray& array = TheArray(machine, reader, reader.Need("array").Text());
  const SBlock block = TheBlock(machine, reader.Need("disk"), reader.Need("disk").Text());
  if (!CanClaim(machine, block)) reader.Need("disk").Fail(block.m_Name + " is in use");
  Succeed(reader, AddSpare(machine, array, block));
}

void ChangeDiskStates(SMachine& machine, const CJsonReader& reader) {
  for (const auto& [name, value] : reader.Members())
    TheDisk(machine, value, name).m_State = ReadDiskState(value);
}

void ChangeArrayStates(SMachine& machine, const CJsonReader& reader) {
  for (const auto& [name, value] : reader.Members()) {
    const std::string state = value.Text();
    if (state != "clean" && state != "dirty") value.Fail("is neither \"clean\" nor \"dirty\"");
    TheArray(machine, value, name).m_Clean = state == "clean";
  }
}

void ChangeSyncSpeeds(SMachine& machine, const CJsonReader& reader) {
  for (const auto& [name, value] : reader.Members()) {
    SetSyncSpeed(machine, TheArray(machine, value, name), value.Number(0, MOST_SPEED));
  }
}

void StartResync(SMachine& machine, const CJsonReader& reader) {
  SArray& array = TheArray(machine, reader, reader.Text());
  if (array.m_Sync || !FindPersonality(array.m_Level)->m_Syncs)
    reader.Fail(array.m_Name + " cannot resync now");
  array.m_SyncedSectors = 0;
  CheckRecovery(machine, array);
}

void StopFromOutside(SMachine& machine, const CJsonReader& reader) {
  Succeed(reader, StopArray(machine, TheArray(machine, reader, reader.Text()), 0));
  DropEmptyArrays(machine);
}

void Rename(SMachine& machine, const CJsonReader& reader) {
  reader.OnlyKeys({"from", "to"});
  SDisk& disk = TheDisk(machine, reader, reader.Need("from").Text());
  const std::string name = reader.Need("to").Text();
  const dev_t device = UsualDevice(name);
  if (device == 0) reader.Need("to").Fail("is no name of a disk");
  const auto block = FindBlock(machine, disk.m_Name);
  if (!CanClaim(machine, *block)) reader.Fail(disk.m_Name + " is in use");
  disk.m_Name = name;
  disk.m_Device = device;
  CheckDevices(machine, reader);
}

/// Where the mount point of a device is kept.
std::string& MountOf(const SBlock& block) {
  if (block.m_Partition != nullptr) {
    auto& partitions = block.m_Disk != nullptr ? block.m_Disk->m_Partitions : block.m_Array->m_Partitions;
    return partitions[static_cast<std::size_t>(block.m_Partition - partitions.data())].m_Mount;
  }
  return block.m_Disk != nullptr ? block.m_Disk->m_Mount : block.m_Array->m_Mount;
}

void Mount(SMachine& machine, const CJsonReader& reader) {
  reader.OnlyKeys({"device", "at"});
  const SBlock block = TheBlock(machine, reader, reader.Need("device").Text());
  if (!CanClaim(machine, block)) reader.Fail(block.m_Name + " is in use");
  if (block.m_Size == 0) reader.Fail(block.m_Name + " has no size");
  MountOf(block) = reader.Need("at").NonEmptyText();
}

void Partition(SMachine& machine, const CJsonReader& reader) {
  reader.OnlyKeys({"device", "partitions"});
  const SBlock block = TheBlock(machine, reader, reader.Need("device").Text());
  if (!CanClaim(machine, block)) reader.Fail(block.m_Name + " is in use");
  const bool onArray = block.m_Array != nullptr;
  if (block.m_Partition != nullptr || major(block.m_Device) == MD_MAJOR_NUMBER ||
      (onArray && !block.m_Array->m_Running)) {
    reader.Fail(block.m_Name + " takes no partitions");
  }
  const auto items = reader.Need("partitions").Items();
  (onArray ? block.m_Array->m_Partitions : block.m_Disk->m_Partitions) =
      ReadPartitions(items, block.m_Size, onArray ? MINORS_PER_PARTITIONABLE - 1 : 15);
  CheckDevices(machine, reader);
}

void ChangeSmart(SMachine& machine, const CJsonReader& reader) {
  for (const auto& [name, value] : reader.Members()) TheDisk(machine, value, name).m_Smart = ReadSmart(value);
}

struct SChange {
  const char* m_Key;
  void (*m_Make)(SMachine& machine, const CJsonReader& reader);
};

constexpr std::array CHANGES = {SChange{"add_disk", AddDiskFrom},
                                SChange{"remove_disk", RemoveWholeDisk},
                                SChange{"rename_disk", Rename},
                                SChange{"disk_state", ChangeDiskStates},
                                SChange{"hold_disk",
                                        [](SMachine& machine, const CJsonReader& reader) {
                                          if (!CanClaim(machine, TheBlock(machine, reader, reader.Text())))
                                            reader.Fail("is in use");
                                          TheDisk(machine, reader, reader.Text()).m_Held = true;
                                        }},
                                SChange{"release_disk",
                                        [](SMachine& machine, const CJsonReader& reader) {
                                          TheDisk(machine, reader, reader.Text()).m_Held = false;
                                        }},
                                SChange{"smart", ChangeSmart},
                                SChange{"partition", Partition},
                                SChange{"mount", Mount},
                                SChange{"unmount",
                                        [](SMachine& machine, const CJsonReader& reader) {
                                          MountOf(TheBlock(machine, reader, reader.Text())).clear();
                                        }},
                                SChange{"add_array", AddArrayFrom},
                                SChange{"stop_array", StopFromOutside},
                                SChange{"array_state", ChangeArrayStates},
                                SChange{"sync_speed", ChangeSyncSpeeds},
                                SChange{"start_resync", StartResync},
                                SChange{"add_member", AddMember},
                                SChange{"fail_member",
                                        [](SMachine& machine, const CJsonReader& reader) {
                                          ChangeMember(machine, reader, [&](SArray& array, dev_t device) {
                                            return FailDisk(machine, array, device);
                                          });
                                        }},
                                SChange{"remove_member", [](SMachine& machine, const CJsonReader& reader) {
                                          ChangeMember(machine, reader, [&](SArray& array, dev_t device) {
                                            return RemoveDisk(machine, array, device);
                                          });
                                        }}};

}  // namespace

void ApplyChange(SMachine& machine, const CJsonReader& change) {
  std::optional<std::string> made;
  for (const auto& [key, value] : change.Members()) {
    if (key == "at") continue;
    const auto* found = std::find_if(CHANGES.begin(), CHANGES.end(),
                                     [&key = key](const SChange& one) { return key == one.m_Key; });
    if (found == CHANGES.end()) value.Fail("this change is unknown");
    if (made) value.Fail("there is \"" + *made + "\" already; one entry makes one change");
    found->m_Make(machine, value);
    made = key;
  }
  if (!made) change.Fail("no change is given");
}

void AdvanceTo(SMachine& machine, std::uint64_t time, bool strict) {
  for (;;) {
    const std::uint64_t scripted = machine.m_Script.empty() ? EVERYTHING : machine.m_Script.front().m_At;
    const std::uint64_t next = std::min(scripted, NextSyncEnd(machine).value_or(EVERYTHING));
    if (next > time) break;
    machine.m_Time = std::max(machine.m_Time, next);
    EndSyncs(machine);
    if (next != scripted) continue;
    const SScriptEntry entry = std::move(machine.m_Script.front());
    machine.m_Script.erase(machine.m_Script.begin());
    // No change changes the script: it need not be copied with the machine.
    std::vector<SScriptEntry> rest = std::exchange(machine.m_Script, {});
    SMachine before = machine;
    try {
      ApplyChange(machine, CJsonReader(entry.m_Change, "script, at " + std::to_string(entry.m_At)));
    } catch (const CMachineError&) {
      if (strict) throw;
      machine = std::move(before);
    }
    machine.m_Script = std::move(rest);
  }
  machine.m_Time = std::max(machine.m_Time, time);
}

}  // namespace Simulation
