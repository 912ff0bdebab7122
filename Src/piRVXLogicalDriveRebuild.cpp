/// @file
/// What a rebuild asks of md.

#include "Src/piRVXLogicalDriveRebuild.h"

#include "Src/md/Array.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXLogicalDrive";

/// The number of an array's own node.
std::optional<dev_t> ArrayNodeNumber(OS::COperatingSystem& os, const CRVXLogicalDrive& array) {
  const auto number = OS::DeviceNumber(os, array.DevicePath());
  if (!number)
    RVX_TRACE(TRACE_LIFECYCLE, "ExecuteLogicalDriveOperation() Cannot find %s: %s", array.DevicePath(),
              SystemError());
  return number;
}

}  // namespace

unsigned int StartRebuild(OS::COperatingSystem& os, const CRVXLogicalDrive& array) {
  Md::CArray device(os, array.DevicePath());
  const auto info = device.Info();
  if (!info) return PI::ERR_DEVICE_IO;
  Md::TDisk faulty = Md::FindFaultyMember(device.Disks(), info->raid_disks, [&](const mdu_disk_info_s& disk) {
    RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: disk.state=%x, disk.raid_disk=%d, array.raid_disks=%d",
              disk.state, disk.raid_disk, info->raid_disks);
  });
  if (!faulty) return PI::ERR_DEVICE_IO;
  // The number of the array's own node goes to md, not the member's (oddity 12).
  const auto node = ArrayNodeNumber(os, array);
  if (!node) return PI::ERR_GENERAL;
  RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: found %d, remove", faulty->number);
  if (!device.Remove(*node)) return PI::ERR_DEVICE_IO;
  faulty->state = Md::DISK_ACTIVE;
  RVX_TRACE(TRACE_INFORMATION, "OP_START_REBUILD: and hot add");
  return device.Add(*faulty) ? PI::OK : PI::ERR_DEVICE_IO;
}

unsigned int CancelRebuild(OS::COperatingSystem& os, const CRVXLogicalDrive& array) {
  Md::CArray device(os, array.DevicePath());
  const auto info = device.Info();
  if (!info) return PI::ERR_DEVICE_IO;
  const Md::TDisk rebuilding =
      Md::FindRebuildingMember(device.Disks(), info->raid_disks, [&](const mdu_disk_info_s& disk) {
        RVX_TRACE(TRACE_INFORMATION,
                  "OP_CANCEL_REBUILD: disk.state=%x, disk.raid_disk=%d, array.raid_disks=%d", disk.state,
                  disk.raid_disk, info->raid_disks);
      });
  if (!rebuilding) return PI::ERR_DEVICE_IO;
  const auto node = ArrayNodeNumber(os, array);  // oddity 12
  if (!node) return PI::ERR_GENERAL;
  RVX_TRACE(TRACE_INFORMATION, "OP_CANCEL_REBUILD: found %d, set faulty", rebuilding->number);
  return device.Fail(*node) ? PI::OK : PI::ERR_DEVICE_IO;
}

std::optional<int> FindMember(CModel& model, const char* function, int arrayNumber, TWantedMember wanted) {
  const auto fail = [&]() -> std::optional<int> {
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE %s failed -> INVALID_OBJECT_ID or COMMAND_ERROR", function);
    return std::nullopt;
  };
  const CRVXLogicalDrive* const array = model.FindLogicalDrive(static_cast<std::uint32_t>(arrayNumber));
  if (array == nullptr) return fail();
  const Md::CArray device(model.m_OS, array->DevicePath());
  const auto info = device.Info();
  if (!info) return fail();
  for (const Md::TDisk disk : device.Disks(info->raid_disks)) {
    if (!disk || !wanted(*disk, *info)) continue;
    const int diskID = (disk->major << 8) | disk->minor;
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE %s diskID = %d", function, diskID);
    return diskID;
  }
  return fail();
}

}  // namespace NAMESPACE_piRVX
