#include "simulator/machine/MdSysfs.h"

#include <algorithm>

#include "simulator/machine/MdSync.h"

namespace Simulation {
namespace {

std::string State(const SArray& array) {
  if (!array.m_Running) return array.m_Members.empty() && array.m_RaidDisks == 0 ? "clear" : "inactive";
  if (!array.m_Clean) return "active";
  return array.m_Broken ? "broken" : "clean";
}

/// One that only a superblock tells of is a number; none is no line at all.
std::string Level(const SArray& array) {
  if (array.m_Running) return std::string(FindPersonality(array.m_Level)->m_Name) + "\n";
  return array.m_RaidDisks == 0 ? "" : std::to_string(array.m_Level) + "\n";
}

std::string Action(const SArray& array) {
  if (!array.m_Sync) return "idle";
  return array.m_Sync->m_Recovery ? "recover" : "resync";
}

std::string Completed(const SMachine& machine, const SArray& array) {
  if (!array.m_Sync) return "none";
  if (array.m_Sync->m_Delayed) return "delayed";
  return std::to_string(SyncPosition(machine, array)) + " / " + std::to_string(array.m_DeviceSectors);
}

std::string Speed(const SArray& array) {
  if (!array.m_Sync) return "none";
  return std::to_string(array.m_Sync->m_Delayed ? 0 : array.m_Speed);
}

}  // namespace

std::optional<std::string> MdAttribute(const SMachine& machine, const SArray& array,
                                       const std::string& name) {
  if (name == "array_state") return State(array) + "\n";
  if (name == "level") return Level(array);
  if (name == "raid_disks") return std::to_string(array.m_RaidDisks) + "\n";
  // The others come with redundancy, when the array starts.
  if (!array.m_Running || array.m_Level < 1) return std::nullopt;
  if (name == "sync_action") return Action(array) + "\n";
  if (name == "sync_completed") return Completed(machine, array) + "\n";
  if (name == "sync_speed") return Speed(array) + "\n";
  if (name == "degraded") return std::to_string(std::max(DegradedBy(array), 0)) + "\n";
  return std::nullopt;
}

}  // namespace Simulation
