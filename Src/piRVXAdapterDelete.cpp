/// @file
/// What keeps an array from deletion, and what deletion writes.

#include "Src/piRVXAdapterDelete.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "Src/md/Array.h"
#include "Src/md/ProcTexts.h"
#include "Src/piRVXAdapterSuperBlock.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXAdapter";

/// Whether every block of /proc/mdstat whose first line contains the name (of another array too, when the
/// name begins like this one) is of metadata version 1.0.
bool IsVersion10(std::string_view mdstat, const std::string& name) {
  const std::array<std::string_view, 1> own{name};
  Md::CMdstatWalk walk(mdstat, own, std::identity{}, Md::DETAILS_LINE);
  while (const auto hit = walk.Next()) {
    if (!hit->m_Line) {
      RVX_TRACE(TRACE_LIFECYCLE, "DeleteLogicalDriveAllowed() could not read expected line");
      return false;
    }
    const std::string_view details = Md::WithoutLast(*hit->m_Line);
    RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() line = %s", details);
    if (!Md::ContainsText(details, "super 1.0")) {
      RVX_TRACE(TRACE_LIFECYCLE, "DeleteLogicalDriveAllowed() super 1.0 not found");
      return false;
    }
  }
  return true;
}

}  // namespace

unsigned int CheckDeletion(CModel& model, const CRVXLogicalDrive& array, unsigned int* reason) {
  RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() entered for %s", array.m_KernelName);
  if (model.IsBusy(array)) return PI::ERR_BUSY;
  RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() check /proc/mdstat");
  const auto mdstat = OS::ReadText(model.m_OS, "/proc/mdstat");
  if (!mdstat) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteLogicalDriveAllowed() open failed");
    return PI::ERR_DEVICE_IO;
  }
  if (!IsVersion10(*mdstat, array.m_KernelName)) return PI::ERR_DEVICE_IO;

  const std::string path = array.DevicePath();
  RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() check partition for dev=%s", path);
  const std::vector<KVTX::CPartition> partitions = model.m_OS.GetPartitions(path);
  RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() number of partitions = %d", partitions.size());
  for (const KVTX::CPartition& partition : partitions) {
    if (!partition.m_DriveLetter.empty()) {
      RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() drive letter found");
      *reason = PI::REASON_DRIVE_LETTER;
      break;
    }
    if (!partition.m_MountPoint.empty()) {
      RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDriveAllowed() mount point found");
      *reason = PI::REASON_MOUNTED;
      break;
    }
  }
  // The name that this function had first (oddity 14).
  RVX_TRACE(TRACE_INFORMATION, "CheckLogicalDriveOperation() leave successfully for %s", array.m_KernelName);
  return PI::OK;
}

unsigned int DeleteArray(CModel& model, PI::CConfigFile& configuration, const CRVXLogicalDrive& array) {
  const std::string path = array.DevicePath();
  RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDrive() dev=%s", path);
  Md::CArray device(model.m_OS, path);
  if (!device.IsOpen() || !device.Stop()) return PI::ERR_DEVICE_IO;
  const std::unique_ptr<Md::md_superblock1> blank(new (std::nothrow) Md::md_superblock1{});
  if (!blank) return PI::ERR_DEVICE_IO;

  // The last write's status counts; an array none of whose members is known is stopped and still reported.
  unsigned int status = PI::ERR_DEVICE_IO;
  const auto arrayNumber = static_cast<std::int32_t>(array.m_ArrayNumber);
  // The drives know their array by its number alone: where another has the same, only the list of members
  // tells whose they are.
  const bool shared =
      std::ranges::count(model.m_LogicalDrives, array.m_ArrayNumber, &CRVXLogicalDrive::m_ArrayNumber) > 1;
  const auto isMember = [&](const CRVXPhysicalDrive& drive) {
    return drive.m_IsMemberOf == arrayNumber &&
           (!shared || std::count(array.m_Children.begin(), array.m_Children.end(), drive.m_ID) != 0);
  };
  for (CRVXPhysicalDrive& drive : model.m_PhysicalDrives)
    if (isMember(drive)) status = WriteSuperBlock1(model.m_OS, drive, blank.get());
  configuration.WriteKeyValue("", "", 0, arrayNumber);  // by an empty key: nothing, yet
  device.Close();
  RVX_TRACE(TRACE_INFORMATION, "DeleteLogicalDrive() ret=%d", status);
  return status;
}

}  // namespace NAMESPACE_piRVX
