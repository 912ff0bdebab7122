/// @file
/// Operations of logical drives: rebuild, deletion, configuration.

#include "Src/md/Array.h"
#include "Src/piRVXLevels.h"
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
      if (const SRaidLevel* const level = FindRaidLevel(array.m_RaidLevel);
          level != nullptr && !level->m_Redundant)
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
  Md::CArray device(m_OS, array.DevicePath());
  const auto info = device.Info();
  if (!info) return PI::ERR_DEVICE_IO;
  Md::TDisk faulty = Md::FindFaultyMember(device.Disks(), info->raid_disks, [&](const mdu_disk_info_s& disk) {
    RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: disk.state=%x, disk.raid_disk=%d, array.raid_disks=%d",
              disk.state, disk.raid_disk, info->raid_disks);
  });
  if (!faulty) return PI::ERR_DEVICE_IO;
  // The number of the array's own node goes to md, not the member's: front ends and logs know the refusal
  // that current kernels answer it with.
  const auto node = ArrayNodeNumber(array);
  if (!node) return PI::ERR_GENERAL;
  RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: found %d, remove", faulty->number);
  if (!device.Remove(*node)) return PI::ERR_DEVICE_IO;
  faulty->state = Md::DISK_ACTIVE;
  RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: and hot add");
  return device.Add(*faulty) ? PI::OK : PI::ERR_DEVICE_IO;
}

unsigned int IPLUGINAPI_IMPL::CancelRebuild(const CRVXLogicalDrive& array) {
  Md::CArray device(m_OS, array.DevicePath());
  const auto info = device.Info();
  if (!info) return PI::ERR_DEVICE_IO;
  const Md::TDisk rebuilding =
      Md::FindRebuildingMember(device.Disks(), info->raid_disks, [&](const mdu_disk_info_s& disk) {
        RVX_TRACE(TRACE_INFORMATION,
                  "OP_CANCEL_REBUILD: disk.state=%x, disk.raid_disk=%d, array.raid_disks=%d", disk.state,
                  disk.raid_disk, info->raid_disks);
      });
  if (!rebuilding) return PI::ERR_DEVICE_IO;
  const auto node = ArrayNodeNumber(array);  // as for the start
  if (!node) return PI::ERR_GENERAL;
  RVX_TRACE(TRACE_INFORMATION, "OP_CANCEL_REBUILD: found %d, set faulty", rebuilding->number);
  return device.Fail(*node) ? PI::OK : PI::ERR_DEVICE_IO;
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
                      return Md::IsBeingRebuilt(disk) && disk.raid_disk >= 0 &&
                             disk.raid_disk < info.raid_disks;
                    });
}

unsigned int IPLUGINAPI_IMPL::FindPhysicalDriveForRebuild(int arrayNumber, int& diskID) {
  return FindMember("FindPhysicalDriveForRebuild()", arrayNumber, diskID,
                    [](const mdu_disk_info_s& disk, const mdu_array_info_s&) { return Md::IsFaulty(disk); });
}

unsigned int IPLUGINAPI_IMPL::FindMember(const char* function, int arrayNumber, int& diskID,
                                         bool (*wanted)(const mdu_disk_info_s&, const mdu_array_info_s&)) {
  const auto fail = [&]() -> unsigned int {
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE %s failed -> INVALID_OBJECT_ID or COMMAND_ERROR", function);
    return PI::INVALID_OBJECT_ID;
  };
  const CRVXLogicalDrive* const array = FindLogicalDrive(static_cast<std::uint32_t>(arrayNumber));
  if (array == nullptr) return fail();
  const Md::CArray device(m_OS, array->DevicePath());
  const auto info = device.Info();
  if (!info) return fail();
  for (const Md::TDisk disk : device.Disks(info->raid_disks)) {
    if (!disk || !wanted(*disk, *info)) continue;
    diskID = (disk->major << 8) | disk->minor;
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE %s diskID = %d", function, diskID);
    return PI::OK;
  }
  return fail();
}

}  // namespace NAMESPACE_piRVX
