/// @file
/// What spares ask of md, and what is written to them.

#include "Src/piRVXPhysicalDriveSpare.h"

#include <memory>
#include <new>

#include "Src/md/Array.h"
#include "Src/piRVXAdapterSuperBlock.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPhysicalDrive";

/// Writes the spare's superblock and hands it to md.
unsigned int PlaceSpare(OS::COperatingSystem& os, const char* function, Md::CArray& device,
                        CRVXPhysicalDrive& drive, Md::md_superblock1& superBlock) {
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
  if (const unsigned int status = WriteSuperBlock1(os, drive, &superBlock); status != PI::OK) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't write superblock, %s", function, SystemError());
    return status;
  }
  RVX_TRACE(TRACE_INFORMATION, "%s add spare disk to slot %d", function, *slot);
  if (device.Add(disk)) return PI::OK;
  RVX_TRACE(TRACE_LIFECYCLE, "%s can't add spare disk, %s", function, SystemError());
  superBlock = Md::md_superblock1{};
  WriteSuperBlock1(os, drive, &superBlock);
  return PI::ERR_DEVICE_IO;
}

}  // namespace

unsigned int AddSpare(CModel& model, const char* function, CRVXPhysicalDrive& drive, int arrayNumber) {
  CRVXLogicalDrive* const array = model.FindLogicalDrive(static_cast<std::uint32_t>(arrayNumber));
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
  Md::CArray device(model.m_OS, path);
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
  if (const unsigned int status = GetSuperBlock1(model, working->major, working->minor, superBlock.get());
      status != PI::OK) {
    RVX_TRACE(TRACE_LIFECYCLE, "%s can't read superblock, %s", function, SystemError());
    return status;
  }
  if (const unsigned int status = PlaceSpare(model.m_OS, function, device, drive, *superBlock);
      status != PI::OK)
    return status;

  ++drive.m_UpdateCounter;
  drive.m_Status = PI::STATUS_SPARE;
  drive.m_SpareState = PI::SPARE_STATE_IN_USE;
  drive.m_UsableSize = 0;
  drive.m_IsMemberOf = arrayNumber;
  ++array->m_UpdateCounter;
  model.LockObjects(0, static_cast<int>(drive.m_MajorNumber), static_cast<int>(drive.m_MinorNumber),
                    arrayNumber);
  return PI::OK;
}

unsigned int RemoveSpare(CModel& model, CRVXPhysicalDrive& drive) {
  CRVXLogicalDrive* const array = model.FindLogicalDrive(static_cast<std::uint32_t>(drive.m_IsMemberOf));
  if (array == nullptr) return PI::ERR_NOT_AVAILABLE;
  const std::string path = array->DevicePath();
  RVX_TRACE(TRACE_INFORMATION, "DeleteDedicatedHotSpare() %s from %s", drive.m_KernelName, path);
  const std::unique_ptr<Md::md_superblock1> blank(new (std::nothrow) Md::md_superblock1{});
  if (!blank) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() can't get memory for superblock");
    return PI::ERR_OUT_OF_MEMORY;
  }
  Md::CArray device(model.m_OS, path);
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
  const auto number = OS::DeviceNumber(model.m_OS, drive.DevicePath());
  if (!number) {
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() Cannot find %s: %s", drive.DevicePath(),
              SystemError());
    return PI::ERR_GENERAL;
  }
  // The release goes on: a disk that md has lost already must become free too.
  if (!device.Remove(*number))
    RVX_TRACE(TRACE_LIFECYCLE, "DeleteDedicatedHotSpare() can't remove spare disk, %s", SystemError());
  WriteSuperBlock1(model.m_OS, drive, blank.get());

  const int arrayNumber = drive.m_IsMemberOf;
  ++drive.m_UpdateCounter;
  drive.m_Status = PI::STATUS_READY;
  drive.m_SpareState = PI::SPARE_STATE_FREE;
  drive.m_IsMemberOf = CRVXPhysicalDrive::NO_ARRAY;
  drive.m_UsableSize = Md::UsableSize(drive.m_Size);
  ++array->m_UpdateCounter;
  model.LockObjects(0, static_cast<int>(drive.m_MajorNumber), static_cast<int>(drive.m_MinorNumber),
                    arrayNumber);
  return PI::OK;
}

}  // namespace NAMESPACE_piRVX
