/// @file
/// What md tells of an array's members, as front ends read it.

#include "Src/piRVXLogicalDriveConfiguration.h"

#include <algorithm>

#include "Src/md/Array.h"
#include "Src/piRVXLevels.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {
constexpr char TRACE_SOURCE[] = "Src/piRVXLogicalDrive";
}  // namespace

unsigned int ReadConfiguration(OS::COperatingSystem& os, CRVXLogicalDrive& array,
                               PI::CLogicalDrive& description, std::vector<CRVXPhysicalDrive>& drives) {
  const Md::CArray device(os, array.DevicePath());
  if (!device.IsOpen()) return PI::ERR_OPEN_FAILED;
  const auto info = device.Info();
  if (!info) return PI::ERR_DEVICE_IO;
  RVX_TRACE(TRACE_THREADS,
            "ctime\t\t= %d\nlevel\t\t= %d\nsize\t\t= %d\nnr_disks\t= %d\nraid_disks\t= %d\nmd_minor\t= %d\n"
            "not_persistent\t= %d\nutime\t\t= %d\nstate\t\t= %d\nactive_disks\t= %d\nworking_disks\t= %d\n"
            "failed_disks\t= %d\nspare_disks\t= %d\nlayout\t\t= %d\nchunk_size\t= %d",
            info->ctime, info->level, info->size, info->nr_disks, info->raid_disks, info->md_minor,
            info->not_persistent, info->utime, info->state, info->active_disks, info->working_disks,
            info->failed_disks, info->spare_disks, info->layout, info->chunk_size);
  array.m_LogicalSize = 0;
  array.m_RaidLevel = RaidLevelOf(info->level);
  // The level, not the chunk size, so every real array reads 64 KiB here (oddity 4).
  array.m_StripeSize = StripeOf(info->level);

  PI::CContainer container;
  // As in the scan (oddity 5).
  const int bound = static_cast<int>(std::min<std::size_t>(drives.size(), Md::MAX_MEMBERS));
  for (const Md::TDisk disk : device.Disks(bound)) {
    if (!disk) continue;
    RVX_TRACE(TRACE_THREADS, "number\t = %d\nmajor\t = %d\nminor\t = %d\nraid_disk = %d\nstate\t = %d\n",
              disk->number, disk->major, disk->minor, disk->raid_disk, disk->state);
    CRVXPhysicalDrive* const drive = FindMemberDrive(drives, *disk);
    if (drive == nullptr) {
      RVX_TRACE(TRACE_THREADS, "disk not found for array");
      continue;
    }
    drive->m_IsMemberOf = static_cast<std::int32_t>(array.m_ArrayNumber);
    array.m_LogicalSize += drive->m_Size;
    // What the drive is to the model decides, not md's state of it.
    if (drive->m_Status == PI::STATUS_SPARE ||
        (drive->m_Status == PI::STATUS_FAILED && disk->raid_disk == -1))
      description.m_DedicatedHotSpares.push_back(drive->m_ID);
    else
      container.m_Drives.emplace_back(drive->m_ID);
  }
  description.m_SpanCount = 1;
  description.m_SpanSize = static_cast<unsigned int>(container.m_Drives.size());
  description.m_Containers.push_back(container);
  return PI::OK;
}

bool BuildConfiguration(OS::COperatingSystem& os, CRVXLogicalDrive& array,
                        std::vector<CRVXPhysicalDrive>& drives) {
  PI::CLogicalDrive description;
  if (ReadConfiguration(os, array, description, drives) != PI::OK) return false;
  const KVT::XML::CMarkup document = description.ToDocument();
  if (document.GetDoc() == array.m_Configuration.GetDoc()) return false;
  array.m_Configuration = document;
  return true;
}

}  // namespace NAMESPACE_piRVX
