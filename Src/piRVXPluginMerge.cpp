/// @file
/// The merge: drives by their device numbers, arrays by name and number.

#include "Src/piRVXPluginMerge.h"

#include <algorithm>

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

/// Filled beside the model, which takes it over as a whole: a merge that runs out of memory changes nothing.
struct SMerge {
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

void MergePhysicalDrives(CModel& model, SMerge& merge, std::vector<CRVXPhysicalDrive>& scanned)
    ZQ_REQUIRES(model.m_DataLock) {
  const auto queueRemoved = [&](const CRVXPhysicalDrive& drive,
                                const std::string& placeHolder2) ZQ_REQUIRES(model.m_DataLock) {
    PI::CEvent event =
        model.MakeEvent(PI::EVT_PHYSICALDRIVE_REMOVED, drive.m_ID, drive.m_KernelName, placeHolder2);
    event.m_Severity = PI::SEV_WARNING;
    merge.m_Events.push_back(event);
  };
  const CDriveIndex index(scanned);
  merge.m_PhysicalDrives.reserve(scanned.size());
  for (CRVXPhysicalDrive& drive : model.m_PhysicalDrives) {
    const bool wasMissing = drive.m_Status == PI::STATUS_MISSING;
    CRVXPhysicalDrive* const now = index.Find(drive.m_MajorNumber, drive.m_MinorNumber);
    if (now == nullptr) {
      RVX_TRACE(TRACE_THREADS, "UpdateSystem() remove physical drive %s", drive.m_KernelName);
      if (!wasMissing) queueRemoved(drive, NameAndNumbers(drive));
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
  const CDriveIndex kept(model.m_PhysicalDrives);
  for (const CRVXPhysicalDrive& drive : scanned)
    if (kept.Find(drive.m_MajorNumber, drive.m_MinorNumber) == nullptr &&
        index.Find(drive.m_MajorNumber, drive.m_MinorNumber) == &drive)
      merge.Add(merge.m_PhysicalDrives, drive);
}

void MergeLogicalDrives(CModel& model, SMerge& merge, std::vector<CRVXLogicalDrive>& scanned)
    ZQ_REQUIRES(model.m_DataLock) {
  // Called below, under the lock; the analysis does not see that.
  const auto isInModel = [&](const std::string& name) ZQ_NO_THREAD_SAFETY_ANALYSIS {
    return std::any_of(model.m_LogicalDrives.begin(), model.m_LogicalDrives.end(),
                       [&](const CRVXLogicalDrive& array) { return array.m_KernelName == name; });
  };
  for (CRVXLogicalDrive& array : model.m_LogicalDrives) {
    CRVXLogicalDrive* const now =
        FindCounterpart(scanned, array.m_ArrayNumber, array.m_KernelName, isInModel);
    if (now == nullptr) {
      // Named by its number until the worker's next pass looks whether the number is in use again; by itself
      // where the number stays in use, as another array's.
      const bool shared = std::any_of(scanned.begin(), scanned.end(), [&](const CRVXLogicalDrive& other) {
        return other.m_ArrayNumber == array.m_ArrayNumber;
      });
      merge.m_Events.push_back(model.MakeEvent(PI::EVT_LOGICALDRIVE_DELETED,
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

}  // namespace

bool Merge(CModel& model, const CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
           std::vector<CRVXLogicalDrive>& logicalDrives) {
  SMerge merge{model.m_Adapter.m_Children};
  CRVXAdapter scanned = adapter;
  // The scan knows no adapter number: a description that names one goes back to (0) here (oddity 10).
  if (model.m_Adapter.ScannedFields() != scanned.ScannedFields()) {
    ++merge.m_AdapterChanges;
    merge.m_Changed = true;
  }
  MergePhysicalDrives(model, merge, physicalDrives);
  MergeLogicalDrives(model, merge, logicalDrives);

  // From here on nothing fails.
  model.QueueEvents(merge.m_Events, TRACE_SOURCE);
  auto modelFields = model.m_Adapter.ScannedFields();
  auto scannedFields = scanned.ScannedFields();
  modelFields.swap(scannedFields);
  model.m_Adapter.m_Children.swap(merge.m_Children);
  model.m_Adapter.m_UpdateCounter += merge.m_AdapterChanges;
  model.m_PhysicalDrives.swap(merge.m_PhysicalDrives);
  model.m_LogicalDrives.swap(merge.m_LogicalDrives);
  std::erase_if(model.m_Estimators, [&](const PI::CETR& estimator) ZQ_REQUIRES(model.m_DataLock) {
    return std::ranges::find(model.m_LogicalDrives, estimator.m_ID, &CRVXLogicalDrive::m_ID) ==
           model.m_LogicalDrives.end();
  });
  return merge.m_Changed;
}

}  // namespace NAMESPACE_piRVX
