#pragma once
/// @file
/// SMART data of drives, and what is kept of it.

#include <cstdint>
#include <string>
#include <vector>

#include "PI/Helpers.h"
#include "Src/piRVXObjects.h"
#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// One drive's SMART block and when it was read.
struct CCachedSmartData {
  std::string m_DevicePath;
  std::uint64_t m_Time;  ///< milliseconds since 1970
  PI::_IDE_SMART_DATA m_Data;
};

/// SMART blocks of all drives; process-wide, and so under a lock of its own: an instance that was left to a
/// thread that hangs in a disk may have a successor. Lives as long as the process.
extern std::vector<CCachedSmartData>& gSmartData;

/// Fields all ones where the drive tells nothing; only solid-state ATA disks are asked.
PI::CSmartValues ReadSmartValues(OS::COperatingSystem& os, const CRVXPhysicalDrive& drive);
/// A drive's SMART block, at most five minutes old. The record may be filled on failure too.
unsigned int GetSmartData(OS::COperatingSystem& os, const std::string& devicePath, PI::_IDE_SMART_DATA& data);

}  // namespace NAMESPACE_piRVX
