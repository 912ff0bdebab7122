/// @file
/// Lifecycle, and the scan and the merge as the threads use them.

#include "Src/piRVXPlugin.h"

#include <algorithm>
#include <boost/bind/bind.hpp>
#include <boost/convert.hpp>
#include <boost/convert/lexical_cast.hpp>
#include <cstdio>

#include "Src/piRVXLock.h"
#include "Src/piRVXPluginMerge.h"
#include "Src/piRVXPluginScan.h"

namespace NAMESPACE_piRVX {

namespace {

constexpr char TRACE_SOURCE[] = "Src/piRVXPlugin";
constexpr char POLL_INTERVAL_KEY[] = "PollInterval";

constexpr int END_LOOKS = 50;             ///< that DeInitialize takes at its threads before it cancels them
constexpr unsigned long END_PAUSE = 500;  ///< ms between two looks

bool Runs(const std::unique_ptr<KVT::Threading::CThread>& thread, unsigned long time = 0) {
  return thread && thread->Wait(time) == KVT::Threading::WAIT_TIMED_OUT;
}

}  // namespace

IPLUGINAPI_IMPL::IPLUGINAPI_IMPL(OS::COperatingSystem& os) : CModel(os) {
  m_ConfigFile.SetFileName("piRVX.ini");
  std::string text;
  if (m_ConfigFile.ReadKeyValue(POLL_INTERVAL_KEY, text, -1, -1) != PI::OK) return;
  const int seconds =
      boost::convert<int>(text, boost::cnv::lexical_cast()).value_or(int{DEFAULT_POLL_INTERVAL});
  m_PollInterval = static_cast<std::uint32_t>(std::clamp(seconds, MIN_POLL_INTERVAL, MAX_POLL_INTERVAL));
}

IPLUGINAPI_IMPL::~IPLUGINAPI_IMPL() = default;

unsigned int IPLUGINAPI_IMPL::Initialize(std::vector<PI::CAdapterID>& adapterIDs) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER Initialize()");
  const std::pair<const char*, std::function<int()>> steps[] = {
      {"m_DataLock", [this] { return m_DataLock.Init(); }},
      // The name that this lock had first (oddity 14).
      {"m_PrivateEventsLock", [this] { return m_EventsLock.Init(); }},
      {"m_ForceWorker", [this] { return m_ForceWorker.Init(false, false); }},
      {"m_StopRequest", [this] { return m_StopRequest.Init(false, true); }},
      {"m_PrivateEvent", [this] { return m_PrivateEvent.Init(false, false); }},
  };
  for (const auto& [name, init] : steps) {
    const int result = init();
    if (result == KVT::Threading::INIT_OK) continue;
    RVX_TRACE(TRACE_LIFECYCLE, "LEAVE Initialize() %s.Init() -> PI::ERR_LOCK_INITIALIZATION_FAILED %d", name,
              result);
    return PI::ERR_LOCK_INITIALIZATION_FAILED;
  }

  const CTracedLock lock(m_DataLock, KVT::Threading::INFINITE_WAIT, DATA_LOCK_OF_REQUEST, TRACE_SOURCE);
  m_Plugin.m_ID = NewID();
  m_Plugin.m_Kind = PI::OBJ_PLUGIN;
  unsigned int status = ScanSystem(m_Adapter, m_PhysicalDrives, m_LogicalDrives, true);
  RVX_TRACE(TRACE_INFORMATION, "ScanSystem() ret = %d m_PhysicalDrives=%d", status, m_PhysicalDrives.size());
  if (status == PI::OK) {
    m_Plugin.m_Children.push_back(m_Adapter.m_ID);
    m_Adapter.m_Parents.push_back(m_Plugin.m_ID);
    ++m_Adapter.m_UpdateCounter;
    RVX_TRACE(TRACE_THREADS, "Create new adpID");
    PI::CAdapterID adapterID;
    adapterID.m_Location1 = static_cast<std::int32_t>(m_Adapter.m_Location1);
    adapterID.m_Location2 = static_cast<std::int32_t>(m_Adapter.m_Location2);
    adapterID.m_Location3 = static_cast<std::int32_t>(m_Adapter.m_Location3);
    adapterIDs.push_back(adapterID);
  } else {
    m_PhysicalDrives.clear();
    m_LogicalDrives.clear();
    m_Adapter.m_Children.clear();
    ++m_Plugin.m_UpdateCounter;
    status = PI::ERR_SCAN_FAILED;
  }
  // Also after a failed scan: the line says how many adapters there are, which is always one.
  std::printf("%s:  Initialize:  adapter count is 1\n", KVT_MODULE_INFO_piRVX.GetName().c_str());
  std::fflush(stdout);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE Initialize() -> %d", status);
  return status;
}

unsigned int IPLUGINAPI_IMPL::SetAdapterIDs(const std::vector<PI::CAdapterID>& adapterIDs) {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER SetAdapterIDs");
  // Earlier ones stay in front, so the first number that was given wins over repeated calls.
  m_AdapterIDs.insert(m_AdapterIDs.end(), adapterIDs.begin(), adapterIDs.end());
  {
    // A repeated command meets the running worker, whose merges write these texts.
    const CTracedLock lock(m_DataLock, KVT::Threading::INFINITE_WAIT, DATA_LOCK_OF_REQUEST, TRACE_SOURCE);
    const CRVXAdapter& adapter = m_Adapter;
    const auto isOwn = [&](const PI::CAdapterID& id) ZQ_REQUIRES(m_DataLock) {
      return id.m_Location1 == static_cast<std::int32_t>(adapter.m_Location1) &&
             id.m_Location2 == static_cast<std::int32_t>(adapter.m_Location2) &&
             id.m_Location3 == static_cast<std::int32_t>(adapter.m_Location3) &&
             id.m_AdapterNumber != PI::CAdapterID::NO_ADAPTER_NUMBER;
    };
    const auto own = std::find_if(m_AdapterIDs.begin(), m_AdapterIDs.end(), isOwn);
    const std::int32_t number = own == m_AdapterIDs.end() ? 0 : own->m_AdapterNumber;
    m_Adapter.m_Description = Text("Linux %s (%d)", adapter.m_Name, number);
  }
  const auto start = [this](std::unique_ptr<KVT::Threading::CThread>& thread, void (IPLUGINAPI_IMPL::*body)(),
                            const char* name) {
    if (Runs(thread)) return;
    try {
      thread = KVT::Threading::CThread::Create(boost::bind(body, this), 0);
    } catch (const std::exception& exception) {
      RVX_ERROR("SetAdapterIDs() can't start the thread %s: %s", name, exception.what());
    }
  };
  start(m_EventPollThread, &IPLUGINAPI_IMPL::EventPoll, "EventPoll");
  start(m_WorkerThread, &IPLUGINAPI_IMPL::Worker, "Worker");
  return PI::OK;
}

unsigned int IPLUGINAPI_IMPL::DeInitialize() {
  RVX_TRACE(TRACE_LIFECYCLE, "ENTER DeInitialize");
  m_StopRequest.Set();
  m_OS.Sleep(100);
  // Counted, not read from a clock: one that is set meanwhile would end healthy threads, or wait for ever.
  for (int look = 0; HasRunningThread(); ++look) {
    if (Runs(m_WorkerThread)) RVX_TRACE(TRACE_LIFECYCLE, "Wait for termination... (Worker)");
    if (Runs(m_EventPollThread)) RVX_TRACE(TRACE_LIFECYCLE, "Wait for termination... (m_EventPoll)");
    if (look == END_LOOKS) break;
    m_OS.Sleep(END_PAUSE);
  }
  if (Runs(m_WorkerThread)) {
    RVX_TRACE(TRACE_LIFECYCLE, "Kill Worker");
    m_WorkerThread->Cancel();
  }
  if (Runs(m_EventPollThread)) {
    RVX_TRACE(TRACE_LIFECYCLE, "Kill EventPoll");
    m_EventPollThread->Cancel();
  }
  m_OS.Sleep(100);
  RVX_TRACE(TRACE_LIFECYCLE, "LEAVE DeInitialize");
  return PI::OK;
}

bool IPLUGINAPI_IMPL::HasRunningThread(unsigned long time) const {
  return Runs(m_WorkerThread, time) || Runs(m_EventPollThread, time);
}

unsigned int IPLUGINAPI_IMPL::ScanSystem(CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
                                         std::vector<CRVXLogicalDrive>& logicalDrives, bool newIDs) {
  RVX_TRACE(TRACE_THREADS, "ENTER ScanSystem(%d) PhyDrive=%d LogDrive=%d", newIDs, physicalDrives.size(),
            logicalDrives.size());
  // They may be the model's own: the first scan compares with nothing.
  physicalDrives.clear();
  logicalDrives.clear();
  SScanned found = Scan(*this, m_StopRequest, adapter, newIDs);
  physicalDrives.swap(found.m_PhysicalDrives);
  logicalDrives.swap(found.m_LogicalDrives);
  RVX_TRACE(TRACE_THREADS, "LEAVE ScanSystem() -> %d", found.m_Status);
  return found.m_Status;
}

unsigned int IPLUGINAPI_IMPL::UpdateSystem(CRVXAdapter& adapter,
                                           std::vector<CRVXPhysicalDrive>& physicalDrives,
                                           std::vector<CRVXLogicalDrive>& logicalDrives) {
  RVX_TRACE(TRACE_THREADS, "ENTER UpdateSystem for adapter, %d physicalDrives, %d logicalDrive(s)",
            physicalDrives.size(), logicalDrives.size());
  const unsigned int status = Merge(*this, adapter, physicalDrives, logicalDrives) ? PI::OK : PI::ERR_GENERAL;
  RVX_TRACE(TRACE_THREADS, "LEAVE UpdateSystem ret = %d", status);
  return status;
}

}  // namespace NAMESPACE_piRVX
