#include "simulator/machine/Clock.h"

#include <algorithm>
#include <utility>

#include "simulator/machine/MachineError.h"
#include "simulator/machine/MdSync.h"

namespace Simulation {
namespace {

std::uint64_t NextScripted(const SMachine& machine) {
  return machine.m_Script.empty() ? EVERYTHING : machine.m_Script.front().m_At;
}

}  // namespace

std::uint64_t NextHappening(const SMachine& machine) {
  return std::min(NextScripted(machine), NextSyncEnd(machine).value_or(EVERYTHING));
}

void AdvanceTo(SMachine& machine, std::uint64_t time, bool strict) {
  for (std::uint64_t next = NextHappening(machine); next <= time; next = NextHappening(machine)) {
    machine.m_Time = std::max(machine.m_Time, next);
    EndSyncs(machine);
    if (next != NextScripted(machine)) continue;
    const SScriptEntry entry = std::move(machine.m_Script.front());
    machine.m_Script.erase(machine.m_Script.begin());
    // No change changes the script: it need not be copied with the machine.
    std::vector<SScriptEntry> rest = std::exchange(machine.m_Script, {});
    SMachine before = machine;
    try {
      entry.m_Make(machine);
    } catch (const CMachineError&) {
      if (strict) throw;
      machine = std::move(before);
    }
    machine.m_Script = std::move(rest);
  }
  machine.m_Time = std::max(machine.m_Time, time);
}

}  // namespace Simulation
