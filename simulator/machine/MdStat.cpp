#include "simulator/machine/MdStat.h"

#include <algorithm>
#include <boost/format.hpp>

#include "simulator/machine/MdSync.h"

namespace Simulation {
namespace {

/// "[2/1] [U_]": slots, slots in sync, and one letter for each.
std::string Slots(const SArray& array) {
  std::string letters(static_cast<std::size_t>(array.m_RaidDisks), '_');
  for (const SMember& member : array.m_Members) {
    if (member.m_Slot >= 0 && member.m_InSync) letters[static_cast<std::size_t>(member.m_Slot)] = 'U';
  }
  return str(boost::format(" [%d/%d] [%s]") % array.m_RaidDisks % (array.m_RaidDisks - DegradedBy(array)) %
             letters);
}

std::string Geometry(const SArray& array) {
  const std::uint64_t chunk = array.m_ChunkSectors / 2;
  switch (array.m_Level) {
    case -1:
      return str(boost::format(" %dk rounding") % chunk);
    case 0:
      return str(boost::format(" %dk chunks") % chunk);
    case 1:
      return Slots(array);
    case 10:
      return str(boost::format(" %dK chunks %d near-copies%s") % chunk % (array.m_Layout & 0xff) %
                 Slots(array));
    default:
      return str(boost::format(" level %d, %dk chunk, algorithm %d%s") % array.m_Level % chunk %
                 array.m_Layout % Slots(array));
  }
}

/// The bar and the figures behind it, computed as the kernel does, so that it never reads 100 %.
std::string Progress(const SMachine& machine, const SArray& array) {
  const std::uint64_t length = array.m_DeviceSectors;
  const std::uint64_t done = SyncPosition(machine, array);
  const std::uint64_t perMille = (done >> 10) * 1000 / ((length >> 10) + 1);
  const std::size_t bar = perMille / 50;
  const std::uint64_t seconds = (length - done) / (array.m_Speed * 2 / 32 + 1) >> 5;
  return str(boost::format("[%s>%s]  %s =%3u.%u%% (%u/%u) finish=%u.%umin speed=%uK/sec") %
             std::string(bar, '=') % std::string(20 - bar, '.') %
             (array.m_Sync->m_Recovery ? "recovery" : "resync") % (perMille / 10) % (perMille % 10) %
             (done / 2) % (length / 2) % (seconds / 60) % (seconds % 60 / 6) % array.m_Speed);
}

std::string Members(const SArray& array) {
  std::string text;
  for (const SMember& member : array.m_Members) {
    text += str(boost::format(" %s[%d]") % member.m_Name % member.m_Number);
    if (member.m_Faulty) {
      text += "(F)";
    } else if (member.m_Slot < 0) {
      text += "(S)";
    }
  }
  return text;
}

std::uint64_t Blocks(const SArray& array) {
  if (array.m_Running) return array.m_ArraySectors / 2;
  std::uint64_t sectors = 0;
  for (const SMember& member : array.m_Members) sectors += member.m_Faulty ? 0 : member.m_Sectors;
  return sectors / 2;
}

std::string ArrayText(const SMachine& machine, const SArray& array) {
  std::string text = array.m_Name + " : ";
  const SPersonality* personality = FindPersonality(array.m_Level);
  text += array.m_Running ? std::string("active ") + personality->m_Name : "inactive";
  text += Members(array);
  if (!array.m_Members.empty()) text += str(boost::format("\n      %d blocks") % Blocks(array));
  if (array.m_MajorVersion != 0 || array.m_MinorVersion != 90) {
    text += str(boost::format(" super %d.%d") % array.m_MajorVersion % array.m_MinorVersion);
  }
  if (!array.m_Running) return text + "\n       \n";
  text += Geometry(array) + "\n      ";
  if (array.m_Sync) {
    text += array.m_Sync->m_Delayed ? "\tresync=DELAYED" : Progress(machine, array);
    text += "\n      ";
  }
  return text + "\n";
}

}  // namespace

std::string MdStat(const SMachine& machine) {
  std::string text = "Personalities : [raid0] [raid1] [linear] \n";
  // The array that was made last stands first.
  for (auto array = machine.m_Arrays.rbegin(); array != machine.m_Arrays.rend(); ++array) {
    if (array->m_Running || array->m_RaidDisks != 0 || !array->m_Members.empty())
      text += ArrayText(machine, *array);
  }
  return text + "unused devices: <none>\n";
}

}  // namespace Simulation
