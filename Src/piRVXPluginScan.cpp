/// @file
/// The system scan: the adapter and the physical drives.

#include "Src/piRVXPluginScan.h"

#include <new>

#include "PI/Helpers.h"
#include "Src/md/ProcTexts.h"
#include "Src/md/Superblock.h"
#include "Src/piRVXLogicalDriveConfiguration.h"
#include "Src/piRVXPluginQualify.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";
constexpr std::size_t SYSFS_LINE = 255;

/// What happened to a disk, by its status in the model and its status now.
constexpr struct SDiskEvent {
  std::uint32_t m_StatusNow;
  std::uint32_t m_ModelStatus;
  unsigned int m_Code;
  unsigned int m_Severity;
  bool m_WorkerScanOnly;
} DISK_EVENTS[] = {
    {PI::STATUS_READY, PI::STATUS_FAILED, PI::EVT_FAILED_DRIVE_READY, PI::SEV_DEFAULT, false},
    {PI::STATUS_READY, PI::STATUS_OK, PI::EVT_USED_DRIVE_READY, PI::SEV_DEFAULT, false},
    {PI::STATUS_OK, PI::STATUS_READY, PI::EVT_READY_DRIVE_IN_USE, PI::SEV_DEFAULT, true},
    {PI::STATUS_OK, PI::STATUS_FAILED, PI::EVT_FAILED_DRIVE_IN_USE, PI::SEV_DEFAULT, false},
    {PI::STATUS_FAILED, PI::STATUS_READY, PI::EVT_READY_DRIVE_OFFLINE, PI::SEV_ERROR, false},
    {PI::STATUS_FAILED, PI::STATUS_OK, PI::EVT_USED_DRIVE_OFFLINE, PI::SEV_ERROR, false},
};

/// The first line of a disk's sysfs file without surrounding white space; none when it cannot be opened.
std::optional<std::string> ReadAttribute(OS::COperatingSystem& os, const std::string& disk,
                                         const char* file) {
  const auto text = OS::ReadText(os, "/sys/block/" + disk + '/' + file);
  if (!text) return std::nullopt;
  return Md::Trimmed(Md::FirstLine(*text, SYSFS_LINE));
}

/// Reads who made the disk and how it is attached.
void Identify(OS::COperatingSystem& os, CRVXPhysicalDrive& drive) {
  drive.m_Vendor = ReadAttribute(os, drive.m_KernelName, "device/vendor").value_or(drive.m_Vendor);
  drive.m_Model = ReadAttribute(os, drive.m_KernelName, "device/model").value_or(drive.m_Model);
  if (drive.m_Vendor != "ATA") return;
  std::string vendor;
  std::string product;
  PI::CPluginHelper::SplitSATAModelName(drive.m_Model, vendor, product);
  drive.m_Vendor = Md::Trimmed(vendor);
  drive.m_Model = Md::Trimmed(product);
  drive.m_Attachment = PI::ATTACHMENT_ATA;
}

}  // namespace

std::string DeviceKey(const std::string& prefix, std::uint32_t major, std::uint32_t minor) {
  return prefix + "&BLKDEV:Major=" + std::to_string(major) + "&Minor=" + std::to_string(minor);
}

// Unchecked: that the run is on the model of its caller is not seen.
SScanned Scan(CModel& model, KVT::Threading::CEvent& stop, CRVXAdapter& adapter,
              bool newIDs) ZQ_NO_THREAD_SAFETY_ANALYSIS {
  SScanned found{adapter};
  try {
    adapter.m_Kind = PI::OBJ_ADAPTER;
    adapter.m_ID = newIDs ? model.NewID() : model.m_Adapter.m_ID;
    adapter.m_Name = "Multiple Devices";
    adapter.m_Description = Text("Linux %s (0)", adapter.m_Name);
    adapter.m_DeviceKeyPrefix = "SoftRAID0";
    adapter.m_MaxPhysicalDrives = 1024;
    adapter.m_MaxLogicalDrives = 256;
    adapter.m_Status = PI::ADAPTER_OK;
    adapter.m_Attribute = 9;
    model.m_MdMajor = Md::ParseMdMajor(OS::ReadText(model.m_OS, "/proc/devices").value_or(""));

    CScan scan(model, stop, found, newIDs);
    if (!scan.ScanDisks() || !scan.ScanArrays())
      found.m_Status = PI::ERR_SCAN_FAILED;
    else if (newIDs)
      for (CRVXLogicalDrive& array : found.m_LogicalDrives)
        BuildConfiguration(model.m_OS, array, found.m_PhysicalDrives);
  } catch (const std::bad_alloc&) {
    found.m_Status = PI::ERR_OUT_OF_MEMORY;
  }
  return found;
}

void CScan::QueueNameEvent(unsigned int code, unsigned int severity, const PI::CObject& object,
                           const std::string& name) {
  PI::CEvent event = m_Model.MakeEvent(code, object.m_ID, "", name);
  event.m_Severity = severity;
  m_Model.QueueEvent(event, TRACE_SOURCE);
}

const std::vector<Md::SPartition>& CScan::ReadPartitions() {
  std::string text = OS::ReadText(m_Model.m_OS, "/proc/partitions").value_or("");
  if (text != m_Partitions) {
    m_Partitions = std::move(text);
    m_Entries = Md::ParsePartitions(m_Partitions);
  }
  return m_Entries;
}

bool CScan::ScanDisks() {
  CQualification qualification(m_Model.m_OS);
  std::uint32_t driveNumber = 0;
  for (const Md::SPartition& entry : ReadPartitions()) {
    if (!Md::IsDiskName(entry.m_Name)) continue;
    if (IsStopping()) return false;
    RVX_TRACE(TRACE_THREADS, "ScanSystem() found new physical disk %s", entry.m_Name);
    CRVXPhysicalDrive drive;
    drive.m_Kind = PI::OBJ_PHYSICAL_DRIVE;
    drive.m_DriveNumber = driveNumber++;  // disks that are left out below use up a number too
    drive.m_KernelName = entry.m_Name;
    drive.m_MajorNumber = entry.m_Major;
    drive.m_MinorNumber = entry.m_Minor;
    drive.m_Size = entry.m_Blocks;
    drive.m_UsableSize = Md::UsableSize(entry.m_Blocks);
    drive.m_DeviceKey = DeviceKey(m_Found.m_Adapter.m_DeviceKeyPrefix, entry.m_Major, entry.m_Minor);
    Identify(m_Model.m_OS, drive);
    // A volume that a hardware RAID controller presents is the controller's business.
    if (drive.m_Vendor == "LSILOGIC" && drive.m_Model == "Logical Volume") continue;
    const std::string devicePath = "/sys/block/" + drive.m_KernelName + "/device";
    RVX_TRACE(TRACE_THREADS, "vor checkpd %s %s", devicePath, drive.m_KernelName);
    if (!qualification.checkpd(devicePath, drive.m_KernelName.c_str())) continue;
    ScanDisk(drive);
    m_Found.m_PhysicalDrives.push_back(drive);
    RVX_TRACE(TRACE_THREADS, "ScanSystem() after physicalDrives.push_back %d",
              m_Found.m_PhysicalDrives.size());
  }
  return true;
}

/// The disk's identifier, state and medium.
void CScan::ScanDisk(CRVXPhysicalDrive& drive) {
  drive.m_DisplayName = drive.m_Vendor + ' ' + drive.m_Model + " (" + NameAndNumbers(drive) + ')';
  const auto state = ReadAttribute(m_Model.m_OS, drive.m_KernelName, "device/state");
  // A disk without a state is on its way in or out: it counts as one that was not there before, but it stays
  // the object that front ends know (oddity 8).
  const CRVXPhysicalDrive* const model = m_Known.Find(drive.m_MajorNumber, drive.m_MinorNumber);
  const CRVXPhysicalDrive* const known = state ? model : nullptr;
  const std::uint32_t modelStatus = known != nullptr ? known->m_Status : std::uint32_t{PI::STATUS_READY};
  if (model != nullptr && !m_NewIDs) {
    drive.m_ID = model->m_ID;
  } else {
    drive.m_ID = m_Model.NewID();
    m_Found.m_Adapter.m_Children.push_back(drive.m_ID);
  }
  if (known == nullptr && !m_NewIDs)
    QueueNameEvent(PI::EVT_PHYSICALDRIVE_ADDED, PI::SEV_DEFAULT, drive, NameAndNumbers(drive));

  if (!state || !state->starts_with("running")) {
    drive.m_Status = PI::STATUS_FAILED;
  } else if (!OS::CBlockDevice(m_Model.m_OS, drive.DevicePath(), O_RDONLY | O_EXCL).IsOpen()) {
    RVX_TRACE(TRACE_THREADS, "ScanSystem() can't open %s exclusive", drive.DevicePath());
    drive.m_Status = PI::STATUS_OK;
    drive.m_SpareState = PI::SPARE_STATE_IN_USE;
  }
  // A failed member that md still holds is opened by nobody else: in use after failed, on every pass (oddity
  // 9).
  for (const SDiskEvent& event : DISK_EVENTS)
    if (event.m_StatusNow == drive.m_Status && event.m_ModelStatus == modelStatus &&
        !(event.m_WorkerScanOnly && m_NewIDs))
      QueueNameEvent(event.m_Code, event.m_Severity, drive, drive.m_KernelName);

  if (ReadAttribute(m_Model.m_OS, drive.m_KernelName, "queue/rotational") == "0")
    drive.m_Medium = PI::MEDIUM_SOLID_STATE;
}

}  // namespace NAMESPACE_piRVX
