#pragma once
/// @file
/// Machines as JSON text. simulator/README.md tells what a description may say.

#include "simulator/description/JsonReader.h"
#include "simulator/machine/MachineState.h"

namespace Simulation {

/// Throws CMachineError that names the line or the key.
SMachine ReadMachine(const std::string& text);
/// The present state in the form that ReadMachine takes.
std::string WriteMachine(const SMachine& machine);

/// Refuses a machine in which two devices have a name or a number in common, or a disk has one of md's.
void CheckDevices(SMachine& machine, const CJsonReader& reader);

/// Makes one change: an object with one key, and "at" where it stands in a script. Throws CMachineError, and
/// the machine may be half changed then.
void ApplyChange(SMachine& machine, const CJsonReader& change);
/// Moves the machine's time, and makes everything happen that falls into it. A scripted change that is not
/// possible any more (the disk it removes is gone) is left out, unless `strict`.
void AdvanceTo(SMachine& machine, std::uint64_t time, bool strict = false);

void AddDiskFrom(SMachine& machine, const CJsonReader& reader);
void AddArrayFrom(SMachine& machine, const CJsonReader& reader);
/// `size` and `most` bound the partitions' places and numbers.
std::vector<SPartition> ReadPartitions(const std::vector<CJsonReader>& items, std::uint64_t size,
                                       unsigned int most);
TSmartBlock ReadSmart(const CJsonReader& reader);
std::string ReadDiskState(const CJsonReader& reader);
/// "8:16" and back.
dev_t ReadDevice(const CJsonReader& reader);
std::string DeviceText(dev_t device);
/// The version of an array's metadata as it is written, such as "1.0".
std::string MetadataText(const SArray& array);
/// The kernel's number for a disk of that name; 0 when it has none by itself.
dev_t UsualDevice(const std::string& name);

}  // namespace Simulation
