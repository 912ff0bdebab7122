#include "simulator/description/Changes.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "simulator/description/ArrayDescription.h"
#include "simulator/description/DiskDescription.h"
#include "simulator/machine/MdDriver.h"
#include "simulator/machine/MdSync.h"

namespace Simulation {
namespace {

SDisk& TheDisk(SMachine& machine, const TJson& json, const std::string& name) {
  SDisk* disk = FindDisk(machine, name);
  if (disk == nullptr) Fail(json, "there is no disk \"" + name + "\"");
  return *disk;
}

SArray& TheArray(SMachine& machine, const TJson& json, const std::string& name) {
  SArray* array = FindArray(machine, name);
  if (array == nullptr || !array->m_Running) Fail(json, "there is no running array \"" + name + "\"");
  return *array;
}

/// A disk, partition or array that nobody uses.
SBlock FreeBlock(SMachine& machine, const TJson& json) {
  const auto block = FindBlock(machine, json.get<std::string>());
  if (!block) Fail(json, "there is no such device");
  if (!CanClaim(machine, *block)) Fail(json, "is in use");
  return *block;
}

void RequireDone(const TJson& json, int error) {
  if (error != 0) Fail(json, std::string("the kernel refuses: ") + std::strerror(error));
}

void RemoveWholeDisk(SMachine& machine, const TJson& json) {
  const SDisk& disk = TheDisk(machine, json, json);
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

void Hold(SMachine& machine, const TJson& json) {
  SDisk& disk = TheDisk(machine, json, json);
  FreeBlock(machine, json);
  disk.m_Held = true;
}

/// {"sda": value, ...}: each disk gets the value of one of its keys.
void SetKey(SMachine& machine, const TJson& json, const char* key) {
  const auto isIt = [key](const SKey<SDisk>& row) { return std::string(key) == row.m_Name; };
  const auto row = std::find_if(DiskKeys().begin(), DiskKeys().end(), isIt);
  for (const auto& [name, value] : ObjectOf(json)) row->m_Read(machine, TheDisk(machine, value, name), value);
}

/// The values of an object that has these two keys and no others.
std::pair<const TJson&, const TJson&> Both(const TJson& json, const char* first, const char* second) {
  if (ObjectOf(json).size() > 2)
    Fail(json, std::string("takes \"") + first + "\" and \"" + second + "\" alone");
  return {json.at(first), json.at(second)};
}

void Mount(SMachine& machine, const TJson& json) {
  const auto [device, at] = Both(json, "device", "at");
  const SBlock block = FreeBlock(machine, device);
  if (block.m_Size == 0) Fail(device, "has no size");
  block.Mount() = NonEmptyText(at);
}

/// Makes md do something to a member of an array: {"array": ..., "disk": ...}.
void ChangeMember(SMachine& machine, const TJson& json, int (*change)(SMachine&, SArray&, dev_t)) {
  const auto [of, disk] = Both(json, "array", "disk");
  SArray& array = TheArray(machine, of, of);
  const std::string name = NonEmptyText(disk);
  for (const SMember& member : array.m_Members)
    if (member.m_Name == name) return RequireDone(json, change(machine, array, member.m_Device));
  Fail(disk, "is no member of " + array.m_Name);
}

void ChangeSyncSpeeds(SMachine& machine, const TJson& json) {
  for (const auto& [name, value] : ObjectOf(json))
    SetSyncSpeed(machine, TheArray(machine, value, name), NumberOf<std::uint64_t>(value, 0, MOST_SIZE));
}

void StopFromOutside(SMachine& machine, const TJson& json) {
  RequireDone(json, StopArray(machine, TheArray(machine, json, json), 0));
  DropEmptyArrays(machine);
}

using TChange = void (*)(SMachine& machine, const TJson& json);
constexpr std::pair<const char*, TChange> CHANGES[] = {
    {"add_disk", AddDiskFrom},
    {"remove_disk", RemoveWholeDisk},
    {"disk_state", [](SMachine& machine, const TJson& json) { SetKey(machine, json, "state"); }},
    {"smart", [](SMachine& machine, const TJson& json) { SetKey(machine, json, "smart"); }},
    {"hold_disk", Hold},
    {"release_disk",
     [](SMachine& machine, const TJson& json) { TheDisk(machine, json, json).m_Held = false; }},
    {"mount", Mount},
    {"add_array", AddArrayFrom},
    {"stop_array", StopFromOutside},
    {"sync_speed", ChangeSyncSpeeds},
    {"fail_member", [](SMachine& machine, const TJson& json) { ChangeMember(machine, json, FailDisk); }},
    {"remove_member", [](SMachine& machine, const TJson& json) { ChangeMember(machine, json, RemoveDisk); }}};

}  // namespace

void ApplyChange(SMachine& machine, const std::string& change) {
  const TJson json = ParseJson(change);
  Reading([&] {
    const char* made = nullptr;
    for (const auto& [key, value] : ObjectOf(json)) {
      if (key == "at") continue;
      const auto isIt = [&name = key](const auto& one) { return name == one.first; };
      const auto* const found = std::find_if(std::begin(CHANGES), std::end(CHANGES), isIt);
      if (found == std::end(CHANGES)) Fail(value, "this change is unknown");
      if (made != nullptr)
        Fail(value, std::string("there is \"") + made + "\" already; one entry makes one change");
      found->second(machine, value);
      made = found->first;
    }
    if (made == nullptr) Fail(json, "no change is given");
  });
}

}  // namespace Simulation
