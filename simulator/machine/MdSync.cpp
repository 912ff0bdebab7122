#include "simulator/machine/MdSync.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <utility>

#include "simulator/machine/Superblock.h"

namespace Simulation {
namespace {

constexpr std::array PERSONALITIES = {
    SPersonality{-1, "linear", false, 0},    SPersonality{0, "raid0", false, 0},
    SPersonality{1, "raid1", true, 0},       SPersonality{4, "raid4", false, 0},
    SPersonality{5, "raid5", false, 2},      SPersonality{6, "raid6", false, 2},
    SPersonality{10, "raid10", false, 0x102}};

template <typename TMatch>
const SPersonality* FindThat(TMatch matches) {
  const auto* found = std::find_if(PERSONALITIES.begin(), PERSONALITIES.end(), matches);
  return found == PERSONALITIES.end() ? nullptr : found;
}

/// By the whole disk: a member may be a partition, and two arrays on one disk do not sync at once.
bool SharesDisk(const SArray& one, const SArray& other) {
  return std::any_of(one.m_Members.begin(), one.m_Members.end(), [&](const SMember& member) {
    return std::any_of(other.m_Members.begin(), other.m_Members.end(), [&](const SMember& second) {
      return member.m_Instance != 0 && member.m_Instance == second.m_Instance;
    });
  });
}

bool MustWait(const SMachine& machine, const SArray& array) {
  return std::any_of(machine.m_Arrays.begin(), machine.m_Arrays.end(), [&](const SArray& other) {
    return &other != &array && other.m_Sync && !other.m_Sync->m_Delayed && SharesDisk(array, other);
  });
}

void Start(SMachine& machine, SArray& array, bool recovery, std::uint64_t from) {
  array.m_Sync = SSync{recovery, MustWait(machine, array), from, machine.m_Time};
  ++machine.m_MdEvents;
}

/// Takes failed members out of their slots and puts spares into empty ones.
void FillSlots(SMachine& machine, SArray& array) {
  std::vector<bool> taken(static_cast<std::size_t>(array.m_RaidDisks), false);
  for (SMember& member : array.m_Members) {
    if (member.m_Slot < 0) continue;
    if (member.m_Faulty) {
      member.m_SavedSlot = std::exchange(member.m_Slot, -1);
    } else {
      taken[static_cast<std::size_t>(member.m_Slot)] = true;
    }
  }
  for (SMember& member : array.m_Members) {
    if (member.m_Slot >= 0 || member.m_Faulty || array.m_Broken) continue;
    auto slot = std::find(taken.begin(), taken.end(), false);
    const auto saved = static_cast<std::size_t>(member.m_SavedSlot);
    if (saved < taken.size() && !taken[saved]) slot = taken.begin() + member.m_SavedSlot;
    if (slot == taken.end()) continue;
    *slot = true;
    member.m_Slot = static_cast<int>(slot - taken.begin());
    member.m_RecoveredSectors = 0;
    ++machine.m_MdEvents;
  }
}

std::uint64_t EndTime(const SArray& array) {
  const std::uint64_t left = array.m_DeviceSectors - std::min(array.m_Sync->m_From, array.m_DeviceSectors);
  const std::uint64_t size = (left + 1) / 2;
  return array.m_Sync->m_Since + (size * 1000 + array.m_Speed - 1) / array.m_Speed;
}

bool IsMoving(const SArray& array) { return array.m_Sync && !array.m_Sync->m_Delayed && array.m_Speed != 0; }

void EndSync(SMachine& machine, SArray& array) {
  if (!array.m_Sync->m_Recovery) array.m_SyncedSectors = EVERYTHING;
  for (SMember& member : array.m_Members) {
    if (array.m_Sync->m_Recovery && IsRebuilding(member)) member.m_InSync = true;
  }
  array.m_Sync.reset();
  ++machine.m_MdEvents;
  CheckRecovery(machine, array);
  UpdateSuperblocks(machine, array);
}

}  // namespace

bool IsRebuilding(const SMember& member) {
  return member.m_Slot >= 0 && !member.m_InSync && !member.m_Faulty;
}

const SPersonality* FindPersonality(int level) {
  return FindThat([level](const SPersonality& entry) { return entry.m_Level == level; });
}

const SPersonality* FindPersonality(const std::string& name) {
  return FindThat([&](const SPersonality& entry) { return name == entry.m_Name; });
}

int DegradedBy(const SArray& array) {
  return array.m_RaidDisks - static_cast<int>(std::count_if(array.m_Members.begin(), array.m_Members.end(),
                                                            [](const SMember& member) {
                                                              return member.m_Slot >= 0 && member.m_InSync;
                                                            }));
}

bool IsEnough(const SArray& array) {
  return DegradedBy(array) <= (array.m_Level == 1 ? array.m_RaidDisks - 1 : 0);
}

void ComputeArraySize(SArray& array) {
  std::uint64_t each = array.m_DeviceSectors;
  if (array.m_ChunkSectors != 0 && array.m_Level >= 4) each -= each % array.m_ChunkSectors;
  array.m_ArraySectors = 0;
  if (array.m_Level <= 0) {
    for (const SMember& member : array.m_Members)
      array.m_ArraySectors += member.m_Slot >= 0 ? member.m_Sectors : 0;
    return;
  }
  const int redundant = array.m_Level == 1    ? array.m_RaidDisks - 1
                        : array.m_Level == 6  ? 2
                        : array.m_Level == 10 ? array.m_RaidDisks / 2
                                              : 1;
  array.m_ArraySectors = each * static_cast<std::uint64_t>(std::max(array.m_RaidDisks - redundant, 0));
}

// Whole KiB, so that a saved machine goes on where this one is.
std::uint64_t SyncPosition(const SMachine& machine, const SArray& array) {
  const std::uint64_t passed = array.m_Sync->m_Delayed ? 0 : machine.m_Time - array.m_Sync->m_Since;
  return std::min(array.m_DeviceSectors, array.m_Sync->m_From + passed * array.m_Speed / 1000 * 2);
}

void SetSyncSpeed(SMachine& machine, SArray& array, std::uint64_t speed) {
  if (array.m_Sync) {
    array.m_Sync->m_From = SyncPosition(machine, array);
    array.m_Sync->m_Since = machine.m_Time;
  }
  array.m_Speed = speed;
}

std::optional<std::uint64_t> NextSyncEnd(const SMachine& machine) {
  std::optional<std::uint64_t> next;
  for (const SArray& array : machine.m_Arrays) {
    if (IsMoving(array)) next = std::min(next.value_or(EVERYTHING), EndTime(array));
  }
  return next;
}

void EndSyncs(SMachine& machine) {
  for (SArray& array : machine.m_Arrays) {
    if (IsMoving(array) && EndTime(array) <= machine.m_Time) EndSync(machine, array);
  }
  for (SArray& array : machine.m_Arrays) {
    if (array.m_Sync && array.m_Sync->m_Delayed && !MustWait(machine, array)) {
      array.m_Sync->m_Delayed = false;
      array.m_Sync->m_Since = machine.m_Time;
      ++machine.m_MdEvents;
    }
  }
}

void CheckRecovery(SMachine& machine, SArray& array) {
  const SPersonality* personality = FindPersonality(array.m_Level);
  if (!array.m_Running || !personality->m_Syncs || array.m_Sync) return;
  FillSlots(machine, array);
  std::optional<std::uint64_t> recovered;
  for (const SMember& member : array.m_Members) {
    if (IsRebuilding(member)) recovered = std::min(recovered.value_or(EVERYTHING), member.m_RecoveredSectors);
  }
  if (recovered) {
    Start(machine, array, true, *recovered);
  } else if (array.m_SyncedSectors < array.m_DeviceSectors) {
    // With one member left there is nothing to bring in line with it.
    if (array.m_Level == 1 && array.m_RaidDisks - DegradedBy(array) < 2) {
      array.m_SyncedSectors = EVERYTHING;
    } else {
      Start(machine, array, false, array.m_SyncedSectors);
    }
  }
}

int FailDisk(SMachine& machine, SArray& array, dev_t device) {
  SMember* member = array.m_Running ? FindMember(array, device) : nullptr;
  if (member == nullptr) return ENODEV;
  if (member->m_Faulty) return array.m_Broken ? EBUSY : 0;
  if (!FindPersonality(array.m_Level)->m_Syncs) {
    array.m_Broken = true;
    ++machine.m_MdEvents;
    return EBUSY;
  }
  const bool wasInSync = std::exchange(member->m_InSync, false);
  if (wasInSync && !IsEnough(array)) {
    array.m_Broken = true;
    ++machine.m_MdEvents;
    // A mirror keeps its last member in whatever state.
    member->m_InSync = true;
    return EBUSY;
  }
  member->m_Faulty = true;
  if (array.m_Sync) {
    const std::uint64_t position = SyncPosition(machine, array);
    if (!array.m_Sync->m_Recovery) array.m_SyncedSectors = position;
    for (SMember& other : array.m_Members) {
      if (array.m_Sync->m_Recovery && other.m_Slot >= 0 && !other.m_InSync)
        other.m_RecoveredSectors = position;
    }
    array.m_Sync.reset();
    ++machine.m_MdEvents;
  }
  ++machine.m_MdEvents;
  CheckRecovery(machine, array);
  UpdateSuperblocks(machine, array);
  EndSyncs(machine);
  return 0;
}

void UpdateSuperblocks(SMachine& machine, SArray& array) {
  ++array.m_Events;
  array.m_Updated = (machine.m_ClockStart + machine.m_Time) / 1000;
  if (array.m_MajorVersion != 1 || array.m_MinorVersion != 0) return;
  std::vector<dev_t> failed;
  for (const SMember& member : array.m_Members) {
    if (member.m_Faulty) continue;
    const auto block = BlockOf(machine, member);
    if (!block || StoreSuperblock(*block, ComposeSuperblock(array, member, *block)) != 0)
      failed.push_back(member.m_Device);
  }
  for (const dev_t device : failed) FailDisk(machine, array, device);
}

}  // namespace Simulation
