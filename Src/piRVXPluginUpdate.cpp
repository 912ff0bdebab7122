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

bool SameDevice(const CRVXPhysicalDrive& left, const CRVXPhysicalDrive& right) {
  return left.m_MajorNumber == right.m_MajorNumber && left.m_MinorNumber == right.m_MinorNumber;
}

bool SameArray(const CRVXLogicalDrive& left, const CRVXLogicalDrive& right) {
  return left.m_ArrayNumber == right.m_ArrayNumber;
}

/// The first object of the list that stands for the same thing.
template <class TObject>
TObject* Find(std::vector<TObject>& list, const TObject& wanted,
              bool (*same)(const TObject&, const TObject&)) {
  const auto found =
      std::find_if(list.begin(), list.end(), [&](const TObject& object) { return same(object, wanted); });
  return found == list.end() ? nullptr : &*found;
}

}  // namespace

unsigned int IPLUGINAPI_IMPL::UpdateSystem(CRVXAdapter& adapter,
                                           std::vector<CRVXPhysicalDrive>& physicalDrives,
                                           std::vector<CRVXLogicalDrive>& logicalDrives) {
  RVX_TRACE(TRACE_THREADS, "ENTER UpdateSystem for adapter, %d physicalDrives, %d logicalDrive(s)",
            physicalDrives.size(), logicalDrives.size());
  bool changed = false;
  // The scan knows no adapter number: a description that names one goes back to (0) here.
  if (m_Adapter.ScannedFields() != adapter.ScannedFields()) {
    TakeOver(m_Adapter, adapter);
    changed = true;
  }
  changed |= MergePhysicalDrives(physicalDrives);
  changed |= AddNew(m_PhysicalDrives, physicalDrives, &SameDevice);
  changed |= MergeLogicalDrives(logicalDrives);
  changed |= AddNew(m_LogicalDrives, logicalDrives, &SameArray);
  const unsigned int status = changed ? PI::OK : PI::ERR_GENERAL;
  RVX_TRACE(TRACE_THREADS, "LEAVE UpdateSystem ret = %d", status);
  return status;
}

bool IPLUGINAPI_IMPL::MergePhysicalDrives(std::vector<CRVXPhysicalDrive>& scanned) {
  const auto queueRemoved = [this](const CRVXPhysicalDrive& drive,
                                   const std::string& placeHolder2) ZQ_REQUIRES(m_DataLock) {
    PI::CEvent event = MakeEvent(PI::EVT_PHYSICALDRIVE_REMOVED, drive.m_ID, drive.m_KernelName, placeHolder2);
    event.m_Severity = PI::SEV_WARNING;
    QueueEvent(event);
  };
  bool changed = false;
  for (auto drive = m_PhysicalDrives.begin(); drive != m_PhysicalDrives.end();) {
    const bool wasMissing = drive->m_Status == PI::STATUS_MISSING;
    if (CRVXPhysicalDrive* const now = Find(scanned, *drive, &SameDevice); now != nullptr) {
      if (drive->ScannedFields() != now->ScannedFields()) {
        if (now->m_Status == PI::STATUS_MISSING && !wasMissing)
          queueRemoved(*drive, Text("%d:%d", drive->m_MajorNumber, drive->m_MinorNumber));
        TakeOver(*drive, *now);
        changed = true;
      }
      ++drive;
      continue;
    }
    RVX_TRACE(TRACE_THREADS, "UpdateSystem() remove physical drive %s", drive->m_KernelName);
    if (!wasMissing)
      queueRemoved(*drive, Text("%s %d:%d", drive->m_KernelName, drive->m_MajorNumber, drive->m_MinorNumber));
    RemoveChild(drive->m_ID);
    drive = m_PhysicalDrives.erase(drive);
    changed = true;
  }
  return changed;
}

bool IPLUGINAPI_IMPL::MergeLogicalDrives(std::vector<CRVXLogicalDrive>& scanned) {
  bool changed = false;
  for (auto array = m_LogicalDrives.begin(); array != m_LogicalDrives.end();) {
    if (CRVXLogicalDrive* const now = Find(scanned, *array, &SameArray); now != nullptr) {
      if (array->ScannedFields() != now->ScannedFields() ||
          array->m_Configuration.GetDoc() != now->m_Configuration.GetDoc()) {
        TakeOver(*array, *now);
        array->m_Configuration = now->m_Configuration;
        changed = true;
      }
      ++array;
      continue;
    }
    // Named by its number until the worker's next pass looks whether the number is in use again.
    QueueEvent(MakeEvent(PI::EVT_LOGICALDRIVE_DELETED, array->m_ArrayNumber, array->m_KernelName,
                         Text("%d", array->m_ArrayNumber)));
    RemoveChild(array->m_ID);
    array = m_LogicalDrives.erase(array);
    changed = true;
  }
  return changed;
}

template <class TObject>
bool IPLUGINAPI_IMPL::AddNew(std::vector<TObject>& model, std::vector<TObject>& scanned,
                             bool (*same)(const TObject&, const TObject&)) {
  bool changed = false;
  for (const TObject& object : scanned) {
    if (Find(model, object, same) != nullptr) continue;
    m_Adapter.m_Children.push_back(object.m_ID);
    ++m_Adapter.m_UpdateCounter;
    model.push_back(object);
    changed = true;
  }
  return changed;
}

void IPLUGINAPI_IMPL::RemoveChild(unsigned long id) {
  std::vector<unsigned long>& children = m_Adapter.m_Children;
  const auto child = std::find(children.begin(), children.end(), id);
  if (child == children.end()) return;
  children.erase(child);
  ++m_Adapter.m_UpdateCounter;
}

}  // namespace NAMESPACE_piRVX
