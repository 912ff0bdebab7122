#pragma once
/// @file
/// What the md driver of a simulated machine does by itself: superblocks, spares that take over, resyncs.

#include "simulator/machine/MachineState.h"

namespace Simulation {

inline constexpr int MOST_MEMBERS = (4096 - 256) / 2;  ///< roles that a superblock has room for

/// What md knows of a RAID level.
struct SPersonality {
  int m_Level;
  const char* m_Name;
  bool m_Syncs;  ///< members may fail and come back. Levels above 1 are only shown as they are described
  int m_Layout;  ///< the usual one
};
const SPersonality* FindPersonality(int level);
const SPersonality* FindPersonality(const std::string& name);

/// Takes a member out of service, as a request or an error does: 0, or the error that the request answers
/// with.
int FailDisk(SMachine& machine, SArray& array, dev_t device);
/// Writes the array's present state to the superblocks of its members. A member that cannot be written fails.
void UpdateSuperblocks(SMachine& machine, SArray& array);
/// Starts what is due on the array: removal of failed members, a recovery onto spares, a resync.
void CheckRecovery(SMachine& machine, SArray& array);
bool IsRebuilding(const SMember& member);
/// Sectors that a running resync or recovery has done.
std::uint64_t SyncPosition(const SMachine& machine, const SArray& array);
/// Changes how fast the array resyncs from now on.
void SetSyncSpeed(SMachine& machine, SArray& array, std::uint64_t speed);
/// Machine time at which the next resync or recovery ends.
std::optional<std::uint64_t> NextSyncEnd(const SMachine& machine);
/// Ends what has reached its end at the present machine time.
void EndSyncs(SMachine& machine);

/// True when the members that are in sync hold all of the array's data.
bool IsEnough(const SArray& array);
/// How many slots hold no member that is in sync.
int DegradedBy(const SArray& array);
/// Sets the array's size from its level and members.
void ComputeArraySize(SArray& array);

}  // namespace Simulation
