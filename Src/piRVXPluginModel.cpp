/// @file
/// Busy marks, lookups and the event queue.

#include "Src/piRVXPluginModel.h"

#include <algorithm>

#include "Src/piRVXLock.h"

namespace NAMESPACE_piRVX {

namespace {
constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";
}  // namespace

unsigned int CModel::LockObjects(int all, int major, int minor, int arrayNumber) {
  if (all < 0) {
    m_Plugin.m_Busy = m_Adapter.m_Busy = true;
    for (CRVXPhysicalDrive& drive : m_PhysicalDrives) drive.m_Busy = true;
    for (CRVXLogicalDrive& array : m_LogicalDrives) array.m_Busy = true;
    return PI::OK;
  }
  const bool noDrive = major < 0 && minor < 0;
  PI::CObject* object = nullptr;
  if (noDrive && arrayNumber < 0)
    object = &m_Adapter;
  else if (noDrive)
    object = FindLogicalDrive(static_cast<std::uint32_t>(arrayNumber));
  else  // The array is not marked beside its drive: callers that name both mean the drive.
    object = FindPhysicalDrive(static_cast<std::uint32_t>(major), static_cast<std::uint32_t>(minor));
  if (object != nullptr) object->m_Busy = true;
  return PI::OK;
}

unsigned int CModel::UnlockObjects() {
  m_Plugin.m_Busy = m_Adapter.m_Busy = false;
  for (CRVXPhysicalDrive& drive : m_PhysicalDrives) drive.m_Busy = false;
  for (CRVXLogicalDrive& array : m_LogicalDrives) array.m_Busy = false;
  return PI::OK;
}

CRVXLogicalDrive* CModel::FindLogicalDrive(std::uint32_t arrayNumber) {
  const auto found = std::ranges::find(m_LogicalDrives, arrayNumber, &CRVXLogicalDrive::m_ArrayNumber);
  return found == m_LogicalDrives.end() ? nullptr : &*found;
}

PI::CEvent CModel::MakeEvent(unsigned int code, unsigned long objectID, const std::string& placeHolder1,
                             const std::string& placeHolder2) {
  PI::CEvent event;
  event.m_Code = code;
  event.m_ObjectID = objectID;
  event.m_SourceID = m_Adapter.m_ID;
  event.m_Time = m_OS.Now();
  event.SetPlaceHolder1(placeHolder1);
  event.SetPlaceHolder2(placeHolder2);
  return event;
}

void CModel::QueueEvents(std::list<PI::CEvent>& events, const char* source, int line) {
  while (!events.empty()) {
    std::list<PI::CEvent> next;
    next.splice(next.end(), events, events.begin());
    const CTracedLock lock(m_EventsLock, KVT::Threading::INFINITE_WAIT, EVENTS_LOCK_OF_APPEND, source, line);
    Append(next);
  }
}

void CModel::QueueEvent(const PI::CEvent& event, const char* source, int line) {
  std::list<PI::CEvent> events{event};
  QueueEvents(events, source, line);
}

void CModel::Append(std::list<PI::CEvent>& events) {
  m_EventQueue.splice(m_EventQueue.end(), events);
  while (m_EventQueue.size() > MAX_EVENTS) {
    m_EventQueue.pop_front();
    if (m_EventsDropped) continue;
    RVX_ERROR("%d events wait to be fetched: the oldest are dropped from now on", MAX_EVENTS);
    m_EventsDropped = true;
  }
}

}  // namespace NAMESPACE_piRVX
