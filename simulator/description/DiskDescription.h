#pragma once
/// @file
/// Disks, their partitions and SMART data in a description.

#include "simulator/description/Json.h"

namespace Simulation {

const TKeys<SDisk>& DiskKeys();
void AddDiskFrom(SMachine& machine, const TJson& json);
/// A list of partitions; `size` and `most` bound their places and numbers.
std::vector<SPartition> ReadPartitions(SMachine& machine, const TJson& json, std::uint64_t size,
                                       unsigned int most);
TJson WritePartitions(const SMachine& machine, const std::vector<SPartition>& partitions);
/// Refuses a machine in which two devices have a name, a number or an instance in common, or a disk has one
/// of md's.
void CheckDevices(SMachine& machine, const TJson& json);
/// The highest instance that a description may give.
inline constexpr std::uint64_t MOST_INSTANCE = EVERYTHING / 2;
/// "8:16" and back.
dev_t ReadDevice(const TJson& json);
std::string DeviceText(dev_t device);

}  // namespace Simulation
