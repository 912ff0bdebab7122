#pragma once
/// @file
/// Which disks are managed: those on a PCI controller of a known vendor with a known driver.

#include <string>

#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// Looks at the disks of one scan: once udevadm gave no answer in time, none is asked about any more. Each
/// would hold up all requests for as long again.
class CQualification {
 public:
  explicit CQualification(OS::COperatingSystem& os) : m_OS(os) {}

  /// The sysfs folder of the PCI function that a disk hangs on; empty when it cannot be told.
  std::string GetHostPath(const std::string& deviceName);
  /// True when the disk hangs on a supported controller. `devicePath`: its device folder in sysfs.
  bool checkpd(const std::string& devicePath, const char* deviceName);

 private:
  OS::COperatingSystem& m_OS;
  bool m_UdevadmHangs{false};
};

}  // namespace NAMESPACE_piRVX
