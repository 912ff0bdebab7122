/// @file
/// Operations of physical drives: dedicated hot spares and missing drives.

#include <memory>
#include <new>

#include "Src/md/Array.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPhysicalDrive";

constexpr PI::COperation::Row OPERATIONS[] = {
    {PI::OP_CREATE_DEDICATED_HOTSPARE, 2, 2, 1, 1, 0, 2, 2, 22026},
    {PI::OP_DELETE_DEDICATED_HOTSPARE, 2, 2, 1, 1, 0, 2, 2, 22032},
    {PI::OP_REPLACE_MISSING_DRIVE, 2, 2, 1, 1, 0, 1, 2, 22058},
    {PI::OP_REPLACE_MISSING_DRIVE, 2, 2, 1, 1, 0, 2, 2, 22073},
    {PI::OP_GET_MISSING_DRIVES, 3, 1, 1, 1, 0, 0, 1, 1},
};

}  // namespace

unsigned int IPLUGINAPI_IMPL::GetPhysicalDriveOperations(CRVXPhysicalDrive&,
                                                         std::vector<PI::COperation>& out) {
  OfferOperations(OPERATIONS, out);
  for (PI::COperation& operation : out) {
    if (operation.m_Code != PI::OP_CREATE_DEDICATED_HOTSPARE &&
        operation.m_Code != PI::OP_REPLACE_MISSING_DRIVE)
      continue;
    PI::CProperty parameter(PI::PROP_TARGET_LOGICAL_DRIVE, true);
    parameter.SetValue(0UL);
    operation.m_Parameters.push_back(parameter);
  }
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::CheckPhysicalDriveOperation(CRVXPhysicalDrive& drive,
                                                          PI::COperation& operation) {
  // A resync does not block: md takes spares while it runs.
  for (const CRVXLogicalDrive& array : m_LogicalDrives)
    if (array.m_Activity == PI::ACTIVITY_REBUILDING) return PI::ERR_BUSY;
  const bool free = drive.m_SpareState == PI::SPARE_STATE_FREE;
  const bool member = drive.m_IsMemberOf >= 0;
  switch (operation.m_Code) {
    case PI::OP_DELETE_DEDICATED_HOTSPARE:
      RVX_TRACE(TRACE_INFORMATION, "CheckPhysicalDriveOperation() check for hot spare deletion(%d, %d, %d)",
                drive.m_SpareState, drive.m_Status, drive.m_IsMemberOf);
      if (!free && member && (drive.m_Status == PI::STATUS_SPARE || drive.m_Status == PI::STATUS_FAILED))
        return PI::OK;
      RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() drive %s is no dedicated hotspare",
                drive.m_KernelName);
      return PI::ERR_OPERATION_NOT_SUPPORTED;
    case PI::OP_REPLACE_MISSING_DRIVE: {
      if (!free)
        return drive.m_SpareState == PI::SPARE_STATE_PENDING ? PI::ERR_MISSING_DRIVE_PENDING
                                                             : PI::ERR_DRIVE_NOT_MISSING;
      // Never allowed: md arrays have no missing drives to ask for, and the question below is answered with
      // none.
      PI::COperation question;
      question.m_Code = question.m_SecondCode = PI::OP_GET_MISSING_DRIVES;
      ExecutePhysicalDriveOperation(drive, question);
      return question.m_Parameters.empty() ? PI::ERR_GENERAL : PI::OK;
    }
    case PI::OP_CREATE_DEDICATED_HOTSPARE:
      if (m_LogicalDrives.empty()) {
        RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() no logical drive found");
        return PI::ERR_NOT_AVAILABLE;
      }
      RVX_TRACE(TRACE_INFORMATION, "CheckPhysicalDriveOperation() check for hot spare creation (%d, %d)",
                drive.m_SpareState, drive.m_IsMemberOf);
      if (free && !member) return PI::OK;
      RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() drive %s connot be configured",
                drive.m_KernelName);
      return PI::ERR_OPERATION_NOT_SUPPORTED;
    default:
      RVX_TRACE(TRACE_LIFECYCLE, "CheckPhysicalDriveOperation() no valid operation found");
      return PI::ERR_OPERATION_NOT_SUPPORTED;
  }
}

unsigned int IPLUGINAPI_IMPL::ExecutePhysicalDriveOperation(CRVXPhysicalDrive& drive,
                                                            PI::COperation& operation) {
  unsigned int status = PI::ERR_OPERATION_NOT_SUPPORTED;
  if (operation.m_Code == PI::OP_CREATE_DEDICATED_HOTSPARE) {
    if (operation.m_Parameters.size() != 1) return PI::ERR_INVALID_CONFIGURATION;
    unsigned long arrayNumber = 0;
    if (!operation.m_Parameters.front().GetValue(arrayNumber)) return PI::ERR_WRONG_PARAMETER_TYPE;
    RVX_TRACE(TRACE_INFORMATION, "ExecutePhysicalDriveOperation() got logical drive %d", arrayNumber);
    status = CreateDedicatedHotSpare(drive, static_cast<int>(arrayNumber));
  } else if (operation.m_Code == PI::OP_DELETE_DEDICATED_HOTSPARE) {
    status = DeleteDedicatedHotSpare(drive);
  }
  if (status == PI::OK) m_PrivateEvent.Set();
  return status;
}

unsigned int IPLUGINAPI_IMPL::CreateDedicatedHotSpare(CRVXPhysicalDrive& drive, int arrayNumber) {
  return AddSpare("CreateDedicatedHotSpare()", drive, arrayNumber);
}

unsigned int IPLUGINAPI_IMPL::CreateMissingDrive(CRVXPhysicalDrive& drive, int arrayNumber) {
  return AddSpare("CreateMissingDrive()", drive, arrayNumber);
}

unsigned int IPLUGINAPI_IMPL::AddSpare(const char* function, CRVXPhysicalDrive& drive, int arrayNumber) {
  CRVXLogicalDrive* const array = FindLogicalDrive(static_cast<std::uint32_t>(arrayNumber));
  if (array == nullptr) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s no logical drive %d found", function, arrayNumber);
    return PI::ERR_NOT_AVAILABLE;
  }
  const std::string path = array->DevicePath();
  RVX_TRACE(TRACE_INFORMATION, "%s %s for %s", function, drive.m_KernelName, path);
  const std::unique_ptr<Md::md_superblock1> superBlock(new (std::nothrow) Md::md_superblock1{});
  if (!superBlock) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't get memory for superblock", function);
    return PI::ERR_OUT_OF_MEMORY;
  }
  Md::CArray device(m_OS, path);
  if (!device.IsOpen()) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't open %s, %s", function, path, SystemError());
    return PI::ERR_OPEN_FAILED;
  }
  const auto info = device.Info();
  if (!info) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't get info of %s, %s", function, path, SystemError());
    return PI::ERR_DEVICE_IO;
  }
  const Md::TDisk working = Md::FindWorkingMember(device.Disks(), info->raid_disks);
  if (!working) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't find disk with superblock", function);
    return PI::ERR_GENERAL;
  }
  // What was read is not looked at: md refuses a spare whose superblock it does not know, and the disk is
  // wiped then.
  if (const unsigned int status = GetSuperBlock1(working->major, working->minor, superBlock.get());
      status != PI::OK) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't read superblock, %s", function, SystemError());
    return status;
  }
  if (const unsigned int status = PlaceSpare(function, device, drive, *superBlock); status != PI::OK)
    return status;

  ++drive.m_UpdateCounter;
  drive.m_Status = PI::STATUS_SPARE;
  drive.m_SpareState = PI::SPARE_STATE_IN_USE;
  drive.m_UsableSize = 0;
  drive.m_IsMemberOf = arrayNumber;
  ++array->m_UpdateCounter;
  LockObjects(0, static_cast<int>(drive.m_MajorNumber), static_cast<int>(drive.m_MinorNumber), arrayNumber);
  return PI::OK;
}

/// Writes the spare's superblock and hands it to md.
unsigned int IPLUGINAPI_IMPL::PlaceSpare(const char* function, Md::CArray& device, CRVXPhysicalDrive& drive,
                                         Md::md_superblock1& superBlock) {
  const auto slot = Md::FindFreeNumber(device.Disks());
  if (!slot) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s no free slot found", function);
    return PI::ERR_NO_FREE_SLOT;
  }
  mdu_disk_info_s disk{};
  disk.number = *slot;
  disk.major = static_cast<int>(drive.m_MajorNumber);
  disk.minor = static_cast<int>(drive.m_MinorNumber);
  disk.raid_disk = -1;
  superBlock.dev_number = static_cast<std::uint32_t>(*slot);
  superBlock.dev_roles[*slot] = Md::md_superblock1::ROLE_SPARE;
  if (const unsigned int status = WriteSuperBlock1(drive, &superBlock); status != PI::OK) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't write superblock, %s", function, SystemError());
    return status;
  }
  RVX_TRACE(TRACE_INFORMATION, "%s add spare disk to slot %d", function, *slot);
  if (device.Add(disk)) return PI::OK;
  RVX_TRACE(TRACE_LIFECYCLE, "%s can't add spare disk, %s", function, SystemError());
  superBlock = Md::md_superblock1{};
  WriteSuperBlock1(drive, &superBlock);
  return PI::ERR_DEVICE_IO;
}

unsigned int IPLUGINAPI_IMPL::DeleteDedicatedHotSpare(CRVXPhysicalDrive& drive) {
  CRVXLogicalDrive* const array = FindLogicalDrive(static_cast<std::uint32_t>(drive.m_IsMemberOf));
  if (array == nullptr) return PI::ERR_NOT_AVAILABLE;
  const std::string path = array->DevicePath();
  RVX_TRACE(TRACE_INFORMATION, "DeleteDedicatedHotSpare() %s from %s", drive.m_KernelName, path);
  const std::unique_ptr<Md::md_superblock1> blank(new (std::nothrow) Md::md_superblock1{});
  if (!blank) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() can't get memory for superblock");
    return PI::ERR_OUT_OF_MEMORY;
  }
  Md::CArray device(m_OS, path);
  if (!device.IsOpen()) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() can't open %s, %s", path, SystemError());
    return PI::ERR_OPEN_FAILED;
  }
  if (!device.Info()) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() can't get info of %s, %s", path, SystemError());
    return PI::ERR_DEVICE_IO;
  }
  // What md says counts, not the model: an active member is no spare.
  if (!Md::IsWithoutSlot(device.Disks(), drive.m_MajorNumber, drive.m_MinorNumber)) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() disk %s not spare of %s", drive.m_KernelName, path);
    return PI::ERR_GENERAL;
  }
  const auto number = DeviceNumber(drive.DevicePath());
  if (!number) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() Cannot find %s: %s", drive.DevicePath(),
              SystemError());
    return PI::ERR_GENERAL;
  }
  // The release goes on: a disk that md has lost already must become free too.
  if (!device.Remove(*number))
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() can't remove spare disk, %s", SystemError());
  WriteSuperBlock1(drive, blank.get());

  const int arrayNumber = drive.m_IsMemberOf;
  ++drive.m_UpdateCounter;
  drive.m_Status = PI::STATUS_READY;
  drive.m_SpareState = PI::SPARE_STATE_FREE;
  drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
  drive.m_UsableSize = Md::UsableSize(drive.m_Size);
  ++array->m_UpdateCounter;
  LockObjects(0, static_cast<int>(drive.m_MajorNumber), static_cast<int>(drive.m_MinorNumber), arrayNumber);
  return PI::OK;
}

std::optional<dev_t> IPLUGINAPI_IMPL::DeviceNumber(const std::string& path) {
  struct stat status {};
  const OS::CBlockDevice node(m_OS, path, O_RDONLY);
  if ((node.IsOpen() ? m_OS.Status(node.Get(), status) : m_OS.Status(path, status)) != 0) return std::nullopt;
  return status.st_rdev;
}

}  // namespace NAMESPACE_piRVX
