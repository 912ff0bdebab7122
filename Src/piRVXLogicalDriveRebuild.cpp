/// @file
/// Operations of logical drives: rebuild, deletion, configuration.

#include "Src/piRVXMd.h"
#include "Src/piRVXPlugin.h"
#include "Src/piRVXProperties.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXLogicalDrive";

constexpr std::uint32_t NONE = 0xFFFFFFFFU;

constexpr PI::COperation::Row OPERATIONS[] = {
    {PI::OP_START_REBUILD, 1, 2, 2, 2, 0, NONE, 1, 1},
    {PI::OP_CANCEL_REBUILD, 1, 2, 1, 3, 0, NONE, 2, 22017},
    {PI::OP_DELETE_LOGICAL_DRIVE, 1, 2, 1, 8, 0, NONE, 3, 22000},
    {PI::OP_GET_CONFIGURATION, 3, 1, 1, 1, 0, 0, 1, 1},
};

/// None of these: the member is being rebuilt. The faulty bit is not among them.
constexpr int NOT_REBUILDING = DISK_ACTIVE | DISK_SYNC | DISK_REMOVED;

}  // namespace

unsigned int IPLUGINAPI_IMPL::GetLogicalDriveOperations(CRVXLogicalDrive&, std::vector<PI::COperation>& out) {
  OfferOperations(OPERATIONS, out);
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::CheckLogicalDriveOperation(CRVXLogicalDrive& array, PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER CheckLogicalDriveOperation(%d/%d)", array.m_ArrayNumber,
            operation.m_Code);
  switch (operation.m_Code) {
    case PI::OP_START_REBUILD:
      if (array.m_RaidLevel == PI::LEVEL_RAID0 || array.m_RaidLevel == PI::LEVEL_CONCATENATION)
        return PI::ERR_NO_REDUNDANCY;
      if (array.m_Activity != PI::ACTIVITY_NONE) return PI::ERR_BUSY;
      if (array.m_Status != PI::STATUS_DEGRADED && array.m_Status != PI::STATUS_FAILED)
        return PI::ERR_STATE_FORBIDS_REBUILD;
      operation.m_Attributes.back() = 1;
      operation.m_ConfirmationCode = 1;
      return PI::OK;
    case PI::OP_CANCEL_REBUILD:
      return array.m_Activity == PI::ACTIVITY_REBUILDING ? PI::OK : PI::ERR_NO_REBUILD_RUNNING;
    case PI::OP_DELETE_LOGICAL_DRIVE:
      return DeleteLogicalDriveAllowed(array, &operation.m_ConfirmationCode);
    default:
      return PI::OK;
  }
}

unsigned int IPLUGINAPI_IMPL::ExecuteLogicalDriveOperation(CRVXLogicalDrive& array,
                                                           PI::COperation& operation) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER ExecuteLogicalDriveOperation(%d, %d)", array.m_ArrayNumber,
            operation.m_Code);
  switch (operation.m_Code) {
    case PI::OP_GET_CONFIGURATION:
      operation.m_LogicalDrives.assign(1, PI::CLogicalDrive(array.m_Configuration));
      return PI::OK;
    case PI::OP_DELETE_LOGICAL_DRIVE: {
      if (m_PendingOperation != NO_PENDING_OPERATION || array.m_Activity == PI::ACTIVITY_REBUILDING) {
        RVX_TRACE(TRACE_LIFECYCLE, "ExecuteLogicalDriveOperation() array (%s) is busy", array.m_KernelName);
        return PI::ERR_BUSY;
      }
      const unsigned int status = DeleteLogicalDrive(array);
      if (status == PI::OK) m_ForceWorker.Set();
      return status;
    }
    case PI::OP_START_REBUILD:
      return StartRebuild(array);
    case PI::OP_CANCEL_REBUILD:
      return CancelRebuild(array);
    default:
      return PI::ERR_OPERATION_NOT_SUPPORTED;
  }
}

unsigned int IPLUGINAPI_IMPL::StartRebuild(const CRVXLogicalDrive& array) {
  const CBlockDevice device(m_OS, array.DevicePath(), O_RDONLY);
  mdu_array_info_s info{};
  if (!device.IsOpen() || !GetArrayInfo(device.Get(), info)) return PI::ERR_DEVICE_IO;
  mdu_disk_info_s faulty{};
  bool found = false;
  int members = 0;
  for (int number = 0; !found && members < info.raid_disks && number < MAX_MEMBERS; ++number) {
    mdu_disk_info_s disk{};
    if (!GetDiskInfo(device.Get(), number, disk)) continue;
    if ((disk.major == 0 && disk.minor == 0) || (disk.state & DISK_REMOVED) != 0) continue;
    RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: disk.state=%x, disk.raid_disk=%d, array.raid_disks=%d",
              disk.state, disk.raid_disk, info.raid_disks);
    ++members;
    if ((disk.state & DISK_FAULTY) == 0) continue;
    faulty = disk;
    found = true;
  }
  if (!found) return PI::ERR_DEVICE_IO;
  // The number of the array's own node goes to md, not the member's: front ends and logs know the refusal
  // that current kernels answer it with.
  const auto node = ArrayNodeNumber(array);
  if (!node) return PI::ERR_GENERAL;
  RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: found %d, remove", faulty.number);
  if (m_OS.Ioctl(device.Get(), HOT_REMOVE_DISK, DeviceArgument(*node)) < 0) return PI::ERR_DEVICE_IO;
  faulty.state = DISK_ACTIVE;
  RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: and hot add");
  return m_OS.Ioctl(device.Get(), ADD_NEW_DISK, &faulty) < 0 ? PI::ERR_DEVICE_IO : PI::OK;
}

unsigned int IPLUGINAPI_IMPL::CancelRebuild(const CRVXLogicalDrive& array) {
  const CBlockDevice device(m_OS, array.DevicePath(), O_RDONLY);
  mdu_array_info_s info{};
  if (!device.IsOpen() || !GetArrayInfo(device.Get(), info)) return PI::ERR_DEVICE_IO;
  std::optional<int> rebuilding;
  int members = 0;
  for (int number = 0; !rebuilding && members < info.raid_disks && number < MAX_MEMBERS; ++number) {
    mdu_disk_info_s disk{};
    if (!GetDiskInfo(device.Get(), number, disk) || disk.raid_disk == -1) continue;
    RVX_TRACE(TRACE_INFORMATION, "OP_CANCEL_REBUILD: disk.state=%x, disk.raid_disk=%d, array.raid_disks=%d",
              disk.state, disk.raid_disk, info.raid_disks);
    ++members;
    if ((disk.state & NOT_REBUILDING) == 0) rebuilding = disk.number;
  }
  if (!rebuilding) return PI::ERR_DEVICE_IO;
  const auto node = ArrayNodeNumber(array);  // as for the start
  if (!node) return PI::ERR_GENERAL;
  RVX_TRACE(TRACE_INFORMATION, "OP_CANCEL_REBUILD: found %d, set faulty", *rebuilding);
  return m_OS.Ioctl(device.Get(), SET_DISK_FAULTY, DeviceArgument(*node)) < 0 ? PI::ERR_DEVICE_IO : PI::OK;
}

std::optional<dev_t> IPLUGINAPI_IMPL::ArrayNodeNumber(const CRVXLogicalDrive& array) {
  const auto number = DeviceNumber(array.DevicePath());
  if (!number)
    RVX_TRACE(TRACE_LIFECYCLE, "ExecuteLogicalDriveOperation() Cannot find %s: %s", array.DevicePath(),
              SystemError());
  return number;
}

unsigned int IPLUGINAPI_IMPL::FindRebuildingPhysicalDrive(int arrayNumber, int& diskID) {
  return FindMember("FindRebuildingPhysicalDrive()", arrayNumber, diskID,
                    [](const mdu_disk_info_s& disk, const mdu_array_info_s& info) {
                      return (disk.state & NOT_REBUILDING) == 0 && disk.raid_disk >= 0 &&
                             disk.raid_disk < info.raid_disks;
                    });
}

unsigned int IPLUGINAPI_IMPL::FindPhysicalDriveForRebuild(int arrayNumber, int& diskID) {
  return FindMember(
      "FindPhysicalDriveForRebuild()", arrayNumber, diskID,
      [](const mdu_disk_info_s& disk, const mdu_array_info_s&) { return (disk.state & DISK_FAULTY) != 0; });
}

unsigned int IPLUGINAPI_IMPL::FindMember(const char* function, int arrayNumber, int& diskID,
                                         bool (*wanted)(const mdu_disk_info_s&, const mdu_array_info_s&)) {
  const auto fail = [&]() -> unsigned int {
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE %s failed -> INVALID_OBJECT_ID or COMMAND_ERROR", function);
    return PI::INVALID_OBJECT_ID;
  };
  const CRVXLogicalDrive* const array = FindLogicalDrive(static_cast<std::uint32_t>(arrayNumber));
  if (array == nullptr) return fail();
  const CBlockDevice device(m_OS, array->DevicePath(), O_RDONLY);
  mdu_array_info_s info{};
  if (!device.IsOpen() || !GetArrayInfo(device.Get(), info)) return fail();
  for (int number = 0; number < info.raid_disks; ++number) {
    mdu_disk_info_s disk{};
    if (!GetDiskInfo(device.Get(), number, disk) || !wanted(disk, info)) continue;
    diskID = (disk.major << 8) | disk.minor;
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE %s diskID = %d", function, diskID);
    return PI::OK;
  }
  return fail();
}

}  // namespace NAMESPACE_piRVX
