#pragma once
/// @file
/// The configuration of an array: its members by identifier, as md tells them.

#include <vector>

#include "PI/LogicalDrive.h"
#include "Src/piRVXObjects.h"
#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// Asks md for the array's level and members; writes level, stripe size and used size back into the array and
/// the membership into the drives.
unsigned int ReadConfiguration(OS::COperatingSystem& os, CRVXLogicalDrive& array,
                               PI::CLogicalDrive& description, std::vector<CRVXPhysicalDrive>& drives);
/// Rebuilds an array's configuration document; true when it is another one now. It stays as it is when the
/// array cannot be asked.
bool BuildConfiguration(OS::COperatingSystem& os, CRVXLogicalDrive& array,
                        std::vector<CRVXPhysicalDrive>& drives);

}  // namespace NAMESPACE_piRVX
