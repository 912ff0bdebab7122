#pragma once
/// @file
/// The system scan: what the machine has now, as a value.

#include "Src/md/Array.h"
#include "Src/md/ProcTexts.h"
#include "Src/piRVXPluginModel.h"

namespace NAMESPACE_piRVX {

struct SScanned {
  CRVXAdapter& m_Adapter;         ///< the caller's
  unsigned int m_Status{PI::OK};  ///< PI::ERR_SCAN_FAILED, PI::ERR_OUT_OF_MEMORY: the lists are not whole
  std::vector<CRVXPhysicalDrive> m_PhysicalDrives{};
  std::vector<CRVXLogicalDrive> m_LogicalDrives{};
};

/// Looks at the machine. What the model knows gives identifiers, and the history that events follow from:
/// they are queued at once. With `newIDs` everything gets a fresh identifier; configuration documents are
/// made too.
/// @param adapter filled in place, and the identifiers of new objects added. In the first scan it is the
/// model's own: events name it as their source
/// @param stop ends the scan at the next disk or array: it has failed then
SScanned Scan(CModel& model, KVT::Threading::CEvent& stop, CRVXAdapter& adapter, bool newIDs)
    ZQ_REQUIRES(model.m_DataLock);

/// Key by which front ends know a drive or array across reboots of the server.
std::string DeviceKey(const std::string& prefix, std::uint32_t major, std::uint32_t minor);

/// One run of the scan, for its two files. The model's lock is held for all of its life.
class CScan {
 public:
  CScan(CModel& model, KVT::Threading::CEvent& stop, SScanned& found, bool newIDs)
      ZQ_REQUIRES(model.m_DataLock)
      : m_Model(model), m_Stop(stop), m_Found(found), m_NewIDs(newIDs), m_Known(model.m_PhysicalDrives) {}

  /// A stop request ends these two at the next disk or array: false.
  bool ScanDisks() ZQ_REQUIRES(m_Model.m_DataLock);
  bool ScanArrays() ZQ_REQUIRES(m_Model.m_DataLock);

 private:
  /// What the model knew of an array before the scan.
  struct SArrayHistory {
    std::uint32_t m_Status{PI::STATUS_OK};
    std::uint32_t m_Activity{PI::ACTIVITY_NONE};
  };

  /// /proc/partitions as it is now. Disks and arrays are two looks; what has not changed is understood once.
  const std::vector<Md::SPartition>& ReadPartitions();
  std::optional<mdu_array_info_s> ReadArrayInfo(const Md::CArray& device);
  /// /proc/mdstat as all arrays of a look see it: read when first asked for, and again after a wait.
  const std::optional<std::string>& ReadMdstat();
  bool IsStopping() { return m_Stop.Wait(0) == KVT::Threading::WAIT_OK; }
  /// Queues an event about an object with its kernel name as the second placeholder.
  void QueueNameEvent(unsigned int code, unsigned int severity, const PI::CObject& object,
                      const std::string& name) ZQ_REQUIRES(m_Model.m_DataLock);
  void ScanDisk(CRVXPhysicalDrive& drive) ZQ_REQUIRES(m_Model.m_DataLock);
  void ScanArray(SArrayHistory history, CRVXLogicalDrive& array) ZQ_REQUIRES(m_Model.m_DataLock);
  void ScanMembers(CRVXLogicalDrive& array, const Md::CArray& device);
  void ScanProgress(const SArrayHistory& history, CRVXLogicalDrive& array, const mdu_array_info_s& info)
      ZQ_REQUIRES(m_Model.m_DataLock);
  void QueueRunEnd(const SArrayHistory& history, const CRVXLogicalDrive& array, const mdu_array_info_s& info)
      ZQ_REQUIRES(m_Model.m_DataLock);
  void SettleArrayStatus(const SArrayHistory& history, CRVXLogicalDrive& array, const mdu_array_info_s& info)
      ZQ_REQUIRES(m_Model.m_DataLock);

  CModel& m_Model;
  KVT::Threading::CEvent& m_Stop;
  SScanned& m_Found;
  bool m_NewIDs;
  const CDriveIndex m_Known;  ///< what the model has
  std::string m_Partitions;
  std::vector<Md::SPartition> m_Entries;
  std::optional<std::optional<std::string>> m_Mdstat;  ///< none: not read yet
};

}  // namespace NAMESPACE_piRVX
