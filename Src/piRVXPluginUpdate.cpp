/// @file
/// The merge of a fresh scan into the model.

#include <algorithm>

#include "Src/piRVXPlugin.h"
#include "Src/piRVXTrace.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";

/// Makes the model's object equal to the scanned one; its identifier stays.
template <class TObject>
void TakeOver(TObject& model, TObject& scanned) {
  ++model.m_UpdateCounter;
  model.ScannedFields() = scanned.ScannedFields();
}

/// The first drive with these device numbers.
CRVXPhysicalDrive* FindDevice(std::vector<CRVXPhysicalDrive>& drives, const CRVXPhysicalDrive& wanted) {
  const auto found = std::find_if(drives.begin(), drives.end(), [&](const CRVXPhysicalDrive& drive) {
    return drive.m_MajorNumber == wanted.m_MajorNumber && drive.m_MinorNumber == wanted.m_MinorNumber;
  });
  return found == drives.end() ? nullptr : &*found;
}

}  // namespace

/// Filled beside the model, which takes it over as a whole: a merge that runs out of memory changes nothing.
struct IPLUGINAPI_IMPL::SMerge {
  std::vector<unsigned long> m_Children;  ///< of the adapter
  unsigned long m_AdapterChanges{0};
  std::vector<CRVXPhysicalDrive> m_PhysicalDrives{};
  std::vector<CRVXLogicalDrive> m_LogicalDrives{};
  std::list<PI::CEvent> m_Events{};
  bool m_Changed{false};

  void RemoveChild(unsigned long id) {
    m_Changed = true;
    const auto child = std::find(m_Children.begin(), m_Children.end(), id);
    if (child == m_Children.end()) return;
    m_Children.erase(child);
    ++m_AdapterChanges;
  }
  template <class TObject>
  void Add(std::vector<TObject>& list, const TObject& object) {
    m_Changed = true;
    m_Children.push_back(object.m_ID);
    ++m_AdapterChanges;
    list.push_back(object);
  }
};

unsigned int IPLUGINAPI_IMPL::UpdateSystem(CRVXAdapter& adapter,
                                           std::vector<CRVXPhysicalDrive>& physicalDrives,
                                           std::vector<CRVXLogicalDrive>& logicalDrives) {
  RVX_TRACE(TRACE_THREADS, "ENTER UpdateSystem for adapter, %d physicalDrives, %d logicalDrive(s)",
            physicalDrives.size(), logicalDrives.size());
  SMerge merge{m_Adapter.m_Children};
  CRVXAdapter scanned = adapter;
  // The scan knows no adapter number: a description that names one goes back to (0) here.
  if (m_Adapter.ScannedFields() != scanned.ScannedFields()) {
    ++merge.m_AdapterChanges;
    merge.m_Changed = true;
  }
  MergePhysicalDrives(merge, physicalDrives);
  MergeLogicalDrives(merge, logicalDrives);

  // From here on nothing fails.
  QueueEvents(merge.m_Events, TRACE_SOURCE);
  auto modelFields = m_Adapter.ScannedFields();
  auto scannedFields = scanned.ScannedFields();
  modelFields.swap(scannedFields);
  m_Adapter.m_Children.swap(merge.m_Children);
  m_Adapter.m_UpdateCounter += merge.m_AdapterChanges;
  m_PhysicalDrives.swap(merge.m_PhysicalDrives);
  m_LogicalDrives.swap(merge.m_LogicalDrives);
  std::erase_if(m_Estimators, [&](const PI::CETR& estimator) ZQ_REQUIRES(m_DataLock) {
    return std::none_of(m_LogicalDrives.begin(), m_LogicalDrives.end(),
                        [&](const CRVXLogicalDrive& array) { return array.m_ID == estimator.m_ID; });
  });
  const unsigned int status = merge.m_Changed ? PI::OK : PI::ERR_GENERAL;
  RVX_TRACE(TRACE_THREADS, "LEAVE UpdateSystem ret = %d", status);
  return status;
}

void IPLUGINAPI_IMPL::MergePhysicalDrives(SMerge& merge, std::vector<CRVXPhysicalDrive>& scanned) {
  const auto queueRemoved = [&](const CRVXPhysicalDrive& drive,
                                const std::string& placeHolder2) ZQ_REQUIRES(m_DataLock) {
    PI::CEvent event = MakeEvent(PI::EVT_PHYSICALDRIVE_REMOVED, drive.m_ID, drive.m_KernelName, placeHolder2);
    event.m_Severity = PI::SEV_WARNING;
    merge.m_Events.push_back(event);
  };
  for (CRVXPhysicalDrive& drive : m_PhysicalDrives) {
    const bool wasMissing = drive.m_Status == PI::STATUS_MISSING;
    CRVXPhysicalDrive* const now = FindDevice(scanned, drive);
    if (now == nullptr) {
      RVX_TRACE(TRACE_THREADS, "UpdateSystem() remove physical drive %s", drive.m_KernelName);
      if (!wasMissing)
        queueRemoved(drive, Text("%s %d:%d", drive.m_KernelName, drive.m_MajorNumber, drive.m_MinorNumber));
      merge.RemoveChild(drive.m_ID);
      continue;
    }
    CRVXPhysicalDrive& kept = merge.m_PhysicalDrives.emplace_back(drive);
    if (drive.ScannedFields() == now->ScannedFields()) continue;
    if (now->m_Status == PI::STATUS_MISSING && !wasMissing)
      queueRemoved(drive, Text("%d:%d", drive.m_MajorNumber, drive.m_MinorNumber));
    TakeOver(kept, *now);
    merge.m_Changed = true;
  }
  for (const CRVXPhysicalDrive& drive : scanned)
    if (FindDevice(merge.m_PhysicalDrives, drive) == nullptr) merge.Add(merge.m_PhysicalDrives, drive);
}

void IPLUGINAPI_IMPL::MergeLogicalDrives(SMerge& merge, std::vector<CRVXLogicalDrive>& scanned) {
  // Called below, under the lock; the analysis does not see that.
  const auto isInModel = [&](const std::string& name) ZQ_NO_THREAD_SAFETY_ANALYSIS {
    return std::any_of(m_LogicalDrives.begin(), m_LogicalDrives.end(),
                       [&](const CRVXLogicalDrive& array) { return array.m_KernelName == name; });
  };
  for (CRVXLogicalDrive& array : m_LogicalDrives) {
    CRVXLogicalDrive* const now =
        FindCounterpart(scanned, array.m_ArrayNumber, array.m_KernelName, isInModel);
    if (now == nullptr) {
      // Named by its number until the worker's next pass looks whether the number is in use again; by itself
      // where the number stays in use, as another array's.
      const bool shared = std::any_of(scanned.begin(), scanned.end(), [&](const CRVXLogicalDrive& other) {
        return other.m_ArrayNumber == array.m_ArrayNumber;
      });
      merge.m_Events.push_back(MakeEvent(PI::EVT_LOGICALDRIVE_DELETED,
                                         shared ? array.m_ID : array.m_ArrayNumber, array.m_KernelName,
                                         Text("%d", array.m_ArrayNumber)));
      merge.RemoveChild(array.m_ID);
      continue;
    }
    CRVXLogicalDrive& kept = merge.m_LogicalDrives.emplace_back(array);
    if (array.ScannedFields() == now->ScannedFields() &&
        array.m_Configuration.GetDoc() == now->m_Configuration.GetDoc())
      continue;
    TakeOver(kept, *now);
    kept.m_Configuration = now->m_Configuration;
    merge.m_Changed = true;
  }
  // Those that stay have taken over the scanned names by now.
  const auto isOther = [](const std::string&) { return true; };
  for (const CRVXLogicalDrive& array : scanned)
    if (FindCounterpart(merge.m_LogicalDrives, array.m_ArrayNumber, array.m_KernelName, isOther) == nullptr)
      merge.Add(merge.m_LogicalDrives, array);
}

}  // namespace NAMESPACE_piRVX
