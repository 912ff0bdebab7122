#pragma once
/// @file
/// The model: all that front ends see, and the events that wait for them.

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "KVT/Threading.h"
#include "PI/Operation.h"
#include "Src/piRVXETR.h"
#include "Src/piRVXObjects.h"
#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// The objects under m_DataLock, the events under m_EventsLock; lock order is m_DataLock before m_EventsLock.
/// A reference to a drive or array is good until the next merge.
class CModel {
 public:
  /// The machine that the model is of must outlive it.
  explicit CModel(OS::COperatingSystem& os) : m_OS(os) {}

  unsigned long NewID() ZQ_REQUIRES(m_DataLock) { return m_NextID++ | OBJECT_ID_BASE; }
  /// Sets busy marks: of all objects (`all` < 0), of one drive, of one array, or of the adapter.
  unsigned int LockObjects(int all, int major, int minor, int arrayNumber) ZQ_REQUIRES(m_DataLock);
  unsigned int UnlockObjects() ZQ_REQUIRES(m_DataLock);
  /// The first array of this number.
  CRVXLogicalDrive* FindLogicalDrive(std::uint32_t arrayNumber) ZQ_REQUIRES(m_DataLock);
  CRVXPhysicalDrive* FindPhysicalDrive(std::uint32_t major, std::uint32_t minor) ZQ_REQUIRES(m_DataLock) {
    return FindDevice(m_PhysicalDrives, major, minor);
  }
  /// Whether a rebuild or a long operation keeps the array from deletion.
  bool IsBusy(const CRVXLogicalDrive& array) const ZQ_REQUIRES(m_DataLock) {
    return m_PendingOperation != NO_PENDING_OPERATION || array.m_Activity == PI::ACTIVITY_REBUILDING;
  }

  /// An event that the adapter reports now.
  PI::CEvent MakeEvent(unsigned int code, unsigned long objectID, const std::string& placeHolder1,
                       const std::string& placeHolder2) ZQ_REQUIRES(m_DataLock);
  /// Takes m_EventsLock for each append alone; the worker holds it already. `source` and `line` are the
  /// caller's, for the trace. The first form cannot fail.
  void QueueEvents(std::list<PI::CEvent>& events, const char* source, int line = __builtin_LINE())
      ZQ_REQUIRES(m_DataLock);
  void QueueEvent(const PI::CEvent& event, const char* source, int line = __builtin_LINE())
      ZQ_REQUIRES(m_DataLock);
  /// Appends them and drops the oldest of too many: a front end that fetches none for months must not take
  /// the server's memory. Cannot fail.
  void Append(std::list<PI::CEvent>& events) ZQ_REQUIRES(m_EventsLock);

  KVT::Threading::Native_OS::CFastMutex m_DataLock;
  KVT::Threading::Native_OS::CFastMutex m_EventsLock;
  CRVXPlugin m_Plugin ZQ_GUARDED_BY(m_DataLock);
  CRVXAdapter m_Adapter ZQ_GUARDED_BY(m_DataLock);
  std::vector<CRVXPhysicalDrive> m_PhysicalDrives ZQ_GUARDED_BY(m_DataLock);
  std::vector<CRVXLogicalDrive> m_LogicalDrives ZQ_GUARDED_BY(m_DataLock);
  std::vector<PI::CETR> m_Estimators ZQ_GUARDED_BY(m_DataLock);
  std::vector<CSysFSEntry> m_SysFSEntries ZQ_GUARDED_BY(m_DataLock);
  /// Major number of partitionable md devices, -1: none.
  std::int64_t m_MdMajor ZQ_GUARDED_BY(m_DataLock){-1};
  /// A list: taking in events that are made already, and dropping the oldest, cannot fail.
  std::list<PI::CEvent> m_EventQueue ZQ_GUARDED_BY(m_EventsLock);
  bool m_EventsDropped ZQ_GUARDED_BY(m_EventsLock){false};  ///< since the last fetch
  /// All ones: no long operation is pending. Nothing sets it yet; deletions already heed it.
  std::uint32_t m_PendingOperation ZQ_GUARDED_BY(m_DataLock){NO_PENDING_OPERATION};
  std::uint64_t m_NextID ZQ_GUARDED_BY(m_DataLock){0};
  OS::COperatingSystem& m_OS;

  static constexpr std::uint32_t NO_PENDING_OPERATION = 0xFFFFFFFFU;
  static constexpr std::uint64_t OBJECT_ID_BASE = std::uint64_t{295} << 48;  ///< the module above the counter
  static constexpr std::size_t MAX_EVENTS = 100000;  ///< that wait for a front end; the oldest go
};

}  // namespace NAMESPACE_piRVX
