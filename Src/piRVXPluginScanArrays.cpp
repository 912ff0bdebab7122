/// @file
/// The system scan: md arrays, their members, progress and status.

#include <algorithm>
#include <array>

#include "Src/md/Array.h"
#include "Src/md/ProcTexts.h"
#include "Src/piRVXLevels.h"
#include "Src/piRVXPluginScan.h"
#include "Src/piRVXTrace.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";
constexpr int CLEAN_ATTEMPTS = 5;
constexpr std::uint64_t CLEAN_WAIT = 500;  ///< ms

/// A member's status by md's record of it; none: md says nothing that would change it.
std::optional<std::uint32_t> MemberStatus(const mdu_disk_info_s& disk) {
  if (Md::IsFaulty(disk)) return PI::STATUS_FAILED;
  // By bits: a write-mostly member carries others beside these.
  if ((disk.state & Md::DISK_ACTIVE) != 0)
    return (disk.state & Md::DISK_SYNC) != 0 ? PI::STATUS_OK : PI::STATUS_REBUILDING;
  if (disk.state == 0) return disk.raid_disk != -1 ? PI::STATUS_REBUILDING : PI::STATUS_SPARE;
  return std::nullopt;
}

}  // namespace

/// The array's record. md is given time to become clean; the last reading decides. Once the end is asked for,
/// there is no waiting any more: several arrays at work would hold it up for longer than a server waits.
std::optional<mdu_array_info_s> CScan::ReadArrayInfo(const Md::CArray& device) {
  std::optional<mdu_array_info_s> info;
  for (int attempt = 0; attempt < CLEAN_ATTEMPTS; ++attempt) {
    info = device.Info();
    if ((info && (info->state & Md::ARRAY_CLEAN) != 0) || IsStopping()) break;
    m_Model.m_OS.Sleep(CLEAN_WAIT);
    m_Mdstat.reset();
  }
  return info;
}

const std::optional<std::string>& CScan::ReadMdstat() {
  if (!m_Mdstat) m_Mdstat = OS::ReadText(m_Model.m_OS, "/proc/mdstat");
  return *m_Mdstat;
}

bool CScan::ScanArrays() {
  const auto& entries = ReadPartitions();
  const auto isListed = [&](const std::string& name) {
    return std::any_of(entries.begin(), entries.end(),
                       [&](const Md::SPartition& entry) { return entry.m_Name == name; });
  };
  for (const Md::SPartition& entry : entries) {
    const auto number = Md::ArrayNumber(entry.m_Name);
    if (!number) continue;
    RVX_TRACE(TRACE_THREADS, "ScanSystem() found new logical drive %s", entry.m_Name);
    CRVXLogicalDrive array;
    array.m_Kind = PI::OBJ_LOGICAL_DRIVE;
    array.m_ArrayNumber = *number;
    array.m_KernelName = entry.m_Name;
    array.m_DeviceKey = DeviceKey(m_Found.m_Adapter.m_DeviceKeyPrefix, entry.m_Major, entry.m_Minor);
    array.m_PhysicalSize = entry.m_Blocks;

    SArrayHistory history;
    const CRVXLogicalDrive* const known =
        FindCounterpart(m_Model.m_LogicalDrives, *number, entry.m_Name, isListed);
    if (known != nullptr) {
      history = {known->m_Status, known->m_Activity};
      array.m_ID = known->m_ID;
      // Carried along so that an array that did not change compares equal; the worker renews it after the
      // merge.
      array.m_Configuration = known->m_Configuration;
    }
    if (known == nullptr || m_NewIDs) {
      array.m_ID = m_Model.NewID();
      m_Found.m_Adapter.m_Children.push_back(array.m_ID);
    }
    if (known == nullptr && !m_NewIDs)
      QueueNameEvent(PI::EVT_LOGICALDRIVE_ADDED, PI::SEV_DEFAULT, array, array.m_KernelName);
    ScanArray(history, array);
    if (IsStopping()) return false;
    RVX_TRACE(TRACE_THREADS, "ScanSystem() before logicalDrives.push_back");
    m_Found.m_LogicalDrives.push_back(array);
  }
  return true;
}

/// What md tells of an array; an array that it does not tell of keeps its defaults.
void CScan::ScanArray(SArrayHistory history, CRVXLogicalDrive& array) {
  const Md::CArray device(m_Model.m_OS, array.DevicePath());
  if (!device.IsOpen()) return;
  const auto info = ReadArrayInfo(device);
  if (!info || IsStopping())
    return;  // a stop cuts the wait for a clean state short: that reading tells nothing
  array.m_RaidLevel = RaidLevelOf(info->level);
  array.m_StripeSize = StripeOf(info->chunk_size);
  ScanMembers(array, device);
  ScanProgress(history, array, *info);
  SettleArrayStatus(history, array, *info);
}

void CScan::ScanMembers(CRVXLogicalDrive& array, const Md::CArray& device) {
  // The number of scanned disks bounds the walk, not the array's own count (oddity 5).
  const int bound = static_cast<int>(std::min<std::size_t>(m_Found.m_PhysicalDrives.size(), Md::MAX_MEMBERS));
  for (const Md::TDisk disk : device.Disks(bound)) {
    if (!disk) continue;
    CRVXPhysicalDrive* const drive = FindMemberDrive(m_Found.m_PhysicalDrives, *disk);
    // Empty slots and disks on other controllers get no record of their own: the array lists the members it
    // found.
    if (drive == nullptr) continue;
    drive->m_IsMemberOf = static_cast<std::int32_t>(array.m_ArrayNumber);
    drive->m_Status = MemberStatus(*disk).value_or(drive->m_Status);
    drive->m_Activity =
        drive->m_Status == PI::STATUS_REBUILDING ? PI::ACTIVITY_REBUILDING : PI::ACTIVITY_NONE;
    array.m_Children.push_back(drive->m_ID);
    array.m_LogicalSize += drive->m_Size;
  }
}

void CScan::ScanProgress(const SArrayHistory& history, CRVXLogicalDrive& array,
                         const mdu_array_info_s& info) {
  std::uint32_t previous = history.m_Activity;
  const auto start = [&](std::uint32_t activity) ZQ_REQUIRES(m_Model.m_DataLock) {
    array.m_Activity = activity;
    if (activity == previous) return;
    QueueNameEvent(activity == PI::ACTIVITY_RESYNCING ? PI::EVT_RESYNC_STARTED : PI::EVT_REBUILD_STARTED,
                   PI::SEV_DEFAULT, array, array.m_KernelName);
    previous = activity;
  };
  if (info.active_disks < info.raid_disks && info.raid_disks == info.working_disks) {
    // A spare is being built in and none is left. mdstat is not asked, so that nothing sets the watch for it:
    // front ends see such a rebuild without progress (oddity 6).
    start(PI::ACTIVITY_REBUILDING);
    return;
  }
  array.m_Activity = PI::ACTIVITY_NONE;
  array.m_Progress = 0;
  const auto& mdstat = ReadMdstat();
  if (!mdstat) return;
  // Most of the time nothing runs: then no line of any array needs to be found.
  const std::string_view runs = Md::ContainsText(*mdstat, Md::RUN_MARK) ? std::string_view(*mdstat) : "";
  const std::array<std::string_view, 1> own{array.m_KernelName};
  Md::CMdstatWalk walk(runs, own, std::identity{}, Md::PROGRESS_LINE);
  while (const auto hit = walk.Next()) {
    if (!hit->m_Line) break;
    const auto progress = Md::ParseProgress(*hit->m_Line);
    if (!progress) continue;
    start(progress->m_Resync ? PI::ACTIVITY_RESYNCING : PI::ACTIVITY_REBUILDING);
    array.m_Progress = progress->m_Percent;
    m_Found.m_Adapter.m_ProgressWatch = true;
  }
  if (array.m_Activity != previous) QueueRunEnd({history.m_Status, previous}, array, info);
}

/// A rebuild or resync that was running has ended: completed or aborted?
void CScan::QueueRunEnd(const SArrayHistory& history, const CRVXLogicalDrive& array,
                        const mdu_array_info_s& info) {
  const bool stoppedDirty =
      info.state != 0 && (info.state & Md::ARRAY_CLEAN) == 0 && history.m_Status != PI::STATUS_FAILED;
  const bool completed =
      !stoppedDirty && (info.active_disks == info.raid_disks || history.m_Status == PI::STATUS_DEGRADED);
  const bool resync = history.m_Activity == PI::ACTIVITY_RESYNCING;
  if (completed)
    QueueNameEvent(resync ? PI::EVT_RESYNC_COMPLETED : PI::EVT_REBUILD_COMPLETED, PI::SEV_DEFAULT, array,
                   array.m_KernelName);
  else
    QueueNameEvent(resync ? PI::EVT_RESYNC_ABORTED : PI::EVT_REBUILD_ABORTED, PI::SEV_WARNING, array,
                   array.m_KernelName);
}

void CScan::SettleArrayStatus(const SArrayHistory& history, CRVXLogicalDrive& array,
                              const mdu_array_info_s& info) {
  const auto settle = [&](std::uint32_t status, unsigned int code, unsigned int severity)
                          ZQ_REQUIRES(m_Model.m_DataLock) {
                            array.m_Status = status;
                            if (status != history.m_Status)
                              QueueNameEvent(code, severity, array, array.m_KernelName);
                          };
  if ((info.state & Md::ARRAY_CLEAN) == 0 && info.failed_disks != 0)
    settle(PI::STATUS_FAILED, PI::EVT_LOGICALDRIVE_FAILED, PI::SEV_ERROR);
  else if (info.active_disks == info.raid_disks)
    settle(PI::STATUS_OK, PI::EVT_LOGICALDRIVE_OK, PI::SEV_DEFAULT);
  else
    settle(PI::STATUS_DEGRADED, PI::EVT_LOGICALDRIVE_DEGRADED, PI::SEV_ERROR);
  // A second look at arrays of other levels. It compares with the same history: one that stays short of
  // members is announced as OK above on every pass while it stays degraded (oddity 7).
  if (array.m_RaidLevel == PI::LEVEL_CONCATENATION && array.m_LogicalSize < array.m_PhysicalSize)
    settle(PI::STATUS_DEGRADED, PI::EVT_LOGICALDRIVE_DEGRADED, PI::SEV_ERROR);
}

}  // namespace NAMESPACE_piRVX
