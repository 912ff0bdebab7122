/// @file
/// The two threads: the worker that keeps the model current and the poller that wakes it.

#include <algorithm>
#include <cerrno>
#include <functional>

#include "KVT/Exception.h"
#include "Src/md/ProcTexts.h"
#include "Src/piRVXLock.h"
#include "Src/piRVXLogicalDriveConfiguration.h"
#include "Src/piRVXPhysicalDriveSmart.h"
#include "Src/piRVXPlugin.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";

/// Places of the events in the worker's waiter.
constexpr unsigned int FORCE_WORKER = 1;
constexpr unsigned int PRIVATE_EVENT = 3;

constexpr std::uint64_t MDSTAT_WAIT = 3000;  ///< ms

constexpr std::uint32_t WEAR_LIMIT = 95;        ///< percent used
constexpr std::uint32_t RESERVE_LIMIT = 9;      ///< percent left
constexpr unsigned long LIFETIME_LIMIT = 1440;  ///< hours: sixty days

/// The check is due on the first pass, and when the hour has gone from 22 to 23 or from 10 to 11 since the
/// last check. A check at another hour is therefore the last one (oddity 11).
bool IsSmartCheckDue(std::uint64_t lastCheck, std::uint64_t now) {
  if (lastCheck == 0) return true;
  const std::int32_t last = KVTX::CSystemTime_Lx::GetDate(lastCheck).m_Hour;
  const std::int32_t present = KVTX::CSystemTime_Lx::GetDate(now).m_Hour;
  return (last == 22 && present == 23) || (last == 10 && present == 11);
}

/// Events of earlier passes about deleted arrays whose number is in use again get that array's identifier.
void NameDeletedArrays(CModel& model) ZQ_REQUIRES(model.m_DataLock, model.m_EventsLock) {
  for (PI::CEvent& event : model.m_EventQueue) {
    // One that has an identifier already keeps it: its lower half is no array's number.
    const auto number = static_cast<std::uint32_t>(event.m_ObjectID);
    if (event.m_Code != PI::EVT_LOGICALDRIVE_DELETED || event.m_ObjectID != number) continue;
    const CRVXLogicalDrive* const array = FindCounterpart(model.m_LogicalDrives, number, event.m_PlaceHolder1,
                                                          [](const std::string&) { return false; });
    if (array == nullptr) continue;
    event.m_ObjectID = array->m_ID;
    RVX_TRACE(TRACE_THREADS, "Worker() EVT_LOGICALDRIVE_DELETED Event.SetID=%d", event.m_ObjectID);
  }
}

/// Reads how far running rebuilds and resyncs are; true when an array's progress changed.
bool FollowProgress(CModel& model) ZQ_REQUIRES(model.m_DataLock) {
  if (!model.m_Adapter.m_ProgressWatch) return false;
  model.m_Adapter.m_ProgressWatch = false;
  RVX_TRACE(TRACE_THREADS, "Worker() get progress data");
  const auto mdstat = OS::ReadText(model.m_OS, "/proc/mdstat");
  if (!mdstat) return false;
  bool changed = false;
  Md::CMdstatWalk walk(*mdstat, model.m_LogicalDrives, &CRVXLogicalDrive::m_KernelName, Md::PROGRESS_LINE);
  while (const auto hit = walk.Next()) {
    if (!hit->m_Line) break;
    const auto progress = Md::ParseProgress(Md::WithoutLast(*hit->m_Line));
    if (!progress) continue;
    model.m_Adapter.m_ProgressWatch = true;
    CRVXLogicalDrive& array = *hit->m_Object;
    if (progress->m_Percent == array.m_Progress) continue;
    array.m_Progress = progress->m_Percent;
    ++array.m_UpdateCounter;
    changed = true;
  }
  return changed;
}

/// Warns of disks that wear out.
void CheckSmart(CModel& model, SWorkerState& state) ZQ_REQUIRES(model.m_DataLock, model.m_EventsLock) {
  const std::uint64_t now = model.m_OS.Now();
  if (!IsSmartCheckDue(state.m_LastSmartCheck, now)) return;
  std::list<PI::CEvent> events;
  for (const CRVXPhysicalDrive& drive : model.m_PhysicalDrives) {
    // Figures that a drive does not report, or that could not be read, are all ones and raise nothing.
    const PI::CSmartValues values = ReadSmartValues(model.m_OS, drive);
    unsigned long hours = 0;
    const bool projected = PI::CPluginHelper::ComputeRemainingLifeTime(
        values.m_PowerOnHours, values.m_BytesWritten, values.m_WearUsed, values.m_RatedWriteVolume, hours);
    const struct {
      bool m_Raised;
      unsigned int m_Code;
    } warnings[] = {
        {values.m_WearUsed != PI::CSmartValues::UNKNOWN32 && values.m_WearUsed > WEAR_LIMIT,
         PI::EVT_SMART_WEAR_HIGH},
        {values.m_AvailableReserve <= RESERVE_LIMIT, PI::EVT_SMART_RESERVE_LOW},
        {projected && hours < LIFETIME_LIMIT, PI::EVT_SMART_LIFETIME_LOW},
    };
    for (const auto& warning : warnings) {
      if (!warning.m_Raised) continue;
      PI::CEvent event = model.MakeEvent(warning.m_Code, model.m_Adapter.m_ID, model.m_Adapter.m_Description,
                                         NameAndNumbers(drive));
      event.m_Severity = PI::SEV_WARNING;
      events.push_back(event);
    }
  }
  state.m_LastSmartCheck = now;
  model.Append(events);  // the pass holds m_EventsLock
}

}  // namespace

void IPLUGINAPI_IMPL::Worker() {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER Worker()");
  // The first interval counts milliseconds instead of seconds, so that the first pass comes almost at once.
  KVT::Threading::CWaitInterval interval(m_PollInterval);
  KVT::Threading::CWaiter waiter({&m_ForceWorker, &m_StopRequest, &m_PrivateEvent});
  SWorkerState state;
  const auto turn = [&](unsigned int wakeUp) {
    try {
      return WorkerTurn(wakeUp, state);
    } catch (const std::exception& exception) {  // a turn that fails is lost, the next one may do better
      RVX_ERROR("Worker() turn failed: %s", exception.what());
      return true;
    }
  };
  while (turn(waiter.Wait(interval.Remaining()))) {
    RVX_TRACE(TRACE_THREADS, "Worker() before restart interval");
    interval.Restart(NextInterval());
  }
  RVX_TRACE(TRACE_LIFECYCLE, "Worker() something else perhaps m_StopRequest");
  m_StopRequest.Set();
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE Worker()");
}

bool IPLUGINAPI_IMPL::WorkerTurn(unsigned int wakeUp, SWorkerState& state) {
  switch (wakeUp) {
    case PRIVATE_EVENT: {
      RVX_TRACE(TRACE_THREADS, "Worker() m_PrivateEvent event received");
      {
        const CTracedLock lock(m_DataLock, KVT::Threading::INFINITE_WAIT, DATA_LOCK_OF_REQUEST, TRACE_SOURCE);
        UnlockObjects();
      }
      std::invoke(m_pNotification, m_pNotificationTarget, this);
      return true;
    }
    case FORCE_WORKER:
      RVX_TRACE(TRACE_THREADS, "Worker() m_ForceWorker event received, force scan");
      state.m_Force = true;
      break;
    case KVT::Threading::WAIT_TIMED_OUT:
      RVX_TRACE(TRACE_THREADS, "Worker() timeout event received");
      break;
    default:
      return false;
  }
  WorkerPass(state);
  return true;
}

void IPLUGINAPI_IMPL::WorkerPass(SWorkerState& state) {
  // The framework's requests always win: a busy lock skips the pass.
  const CTracedLock dataLock(m_DataLock, 0, DATA_LOCK_OF_PASS, TRACE_SOURCE);
  if (!dataLock.IsHeld()) return;
  CTracedLock eventsLock(m_EventsLock, 0, EVENTS_LOCK_OF_PASS, TRACE_SOURCE);
  if (!eventsLock.IsHeld()) return;
  RVX_TRACE(TRACE_THREADS, "Worker() before bscan=%d", state.m_Force);
  NameDeletedArrays(*this);
  unsigned int status = RefreshModel();
  ++m_Plugin.m_UpdateCounter;
  if (FollowProgress(*this)) status = PI::OK;
  CheckSmart(*this, state);
  RVX_TRACE(TRACE_THREADS, "Worker() after bscan");
  const bool eventsQueued = !m_EventQueue.empty();
  eventsLock.Release();
  // Busy marks outlive only a pass that changed and reported nothing.
  if (eventsQueued || status == PI::OK) UnlockObjects();
}

/// Scan, merge and configuration documents. The status of the last of scan and merge that ran.
unsigned int IPLUGINAPI_IMPL::RefreshModel() {
  CRVXAdapter adapter;
  std::vector<CRVXPhysicalDrive> physicalDrives;
  std::vector<CRVXLogicalDrive> logicalDrives;
  // Made here, so that the links cannot fail behind the merge. A scan that fails leaves those that were
  // there: the last front end to look finds the adapter also after a stop in the middle of a pass.
  std::vector<unsigned long> adapterParents{m_Plugin.m_ID};
  std::vector<unsigned long> pluginChildren{m_Adapter.m_ID};
  RVX_TRACE(TRACE_THREADS, "Before ScanSystem()");
  unsigned int status = ScanSystem(adapter, physicalDrives, logicalDrives, false);
  RVX_TRACE(TRACE_THREADS, "After ScanSystem() ret = %d drives=%d", status, physicalDrives.size());
  if (status != PI::OK) return status;
  RVX_TRACE(TRACE_THREADS, "Before UpdateSystem()");
  status = UpdateSystem(adapter, physicalDrives, logicalDrives);
  RVX_TRACE(TRACE_THREADS, "After UpdateSystem() ret = %d", status);
  m_Adapter.m_Parents.swap(adapterParents);
  m_Plugin.m_Parents.clear();
  m_Plugin.m_Children.swap(pluginChildren);
  ++m_Adapter.m_UpdateCounter;
  // The merge compares a document with itself, since a scan carries it along: what changes it shows here.
  for (CRVXLogicalDrive& array : m_LogicalDrives)
    if (BuildConfiguration(m_OS, array, m_PhysicalDrives)) {
      ++array.m_UpdateCounter;
      status = PI::OK;
    }
  return status;
}

unsigned long IPLUGINAPI_IMPL::NextInterval() const {
  // Only the worker, which asks, changes the length of the list. Without disks it looks ten times less often.
  // A front end may set an interval of any value by giving limits of its own: 0 would leave requests no time,
  // and a negative one no end.
  return (m_PhysicalDrives.empty() ? 10000UL : 1000UL) * std::clamp(m_PollInterval.load(), 1U, 86400U);
}

void IPLUGINAPI_IMPL::EventPoll() {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER EventPoll()");
  RVX_TRACE(TRACE_INFORMATION, "EventPoll() - open fd=%d", -1);  // each round opens its own
  SPollerState state;
  const auto round = [&] {
    try {
      return EventPollRound(state);
    } catch (const KVT::CSystemException&) {
      throw;
    } catch (const std::exception& exception) {  // want of memory passes
      RVX_ERROR("EventPoll() round failed: %s", exception.what());
      m_OS.Sleep(MDSTAT_WAIT);
      return true;
    }
  };
  try {
    while (round()) {
    }
  } catch (const KVT::CSystemException& exception) {
    RVX_ERROR("EventPoll()- Thread is crashed!\n\n%S", exception.what());
    return;
  }
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE EventPoll()");
}

CPolledFile::CPolledFile(OS::COperatingSystem& os) : CDescriptor(os, "/proc/mdstat", O_RDONLY) {}

CPolledFile::~CPolledFile() {
  if (IsOpen()) RVX_TRACE(TRACE_LIFECYCLE, "EventPoll() - before close fd=%d", Get());
}

bool IPLUGINAPI_IMPL::EventPollRound(SPollerState& state) {
  if (m_StopRequest.Wait(0) != KVT::Threading::WAIT_TIMED_OUT) return false;
  auto& watched = state.m_Watched;
  if (!watched || !watched->IsOpen()) watched = std::make_unique<CPolledFile>(m_OS);
  if (!watched->IsOpen()) {
    RVX_TRACE(TRACE_LIFECYCLE, "EventPoll() - currently we can not open mdstat so sleep a while");
    m_OS.Sleep(MDSTAT_WAIT);
    return true;
  }
  RVX_TRACE(TRACE_LIFECYCLE, "Select with max fd number=%d", watched->Get());
  int result = m_OS.WaitExceptional(watched->Get(), MDSTAT_WAIT);
  RVX_TRACE(TRACE_LIFECYCLE, "EventPoll() - after select() iResult=%d", result);
  if (result < 0) throw KVT::CSystemException(errno, "select");
  // Each round watches a file of its own: the kernel reports changes since the opening. It is open before the
  // one before it is looked at for the last time and closed: what changes between two rounds shows in one.
  auto next = std::make_unique<CPolledFile>(m_OS);
  if (result == 0) result = m_OS.WaitExceptional(watched->Get(), 0);
  watched = std::move(next);
  if (result > 0) m_ForceWorker.Set();
  return true;
}

}  // namespace NAMESPACE_piRVX
