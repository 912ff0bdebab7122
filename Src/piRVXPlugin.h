#pragma once
/// @file
/// The plug-in's instance.

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "KVT/Threading.h"
#include "PI/Helpers.h"
#include "PI/PluginApi.h"
#include "Src/piRVXPluginModel.h"
#include "system/Descriptor.h"

namespace NAMESPACE_piRVX {

template <class TObject>
struct SOperationRow;

/// What the worker keeps from pass to pass.
struct SWorkerState {
  bool m_Force{false};
  std::uint64_t m_LastSmartCheck{0};  ///< milliseconds since 1970, 0: none yet
};

/// The poller's /proc/mdstat. Tells before it closes, also when its thread is cancelled.
class CPolledFile : public OS::CDescriptor {
 public:
  explicit CPolledFile(OS::COperatingSystem& os);
  ~CPolledFile();
};

/// What the poller keeps from round to round.
struct SPollerState {
  std::unique_ptr<CPolledFile> m_Watched;  ///< null or closed: none
};

/// The one instance: the model, the two threads that keep it current, and what the framework calls. All
/// statuses are PI::_STATUS values. What needs a lock says so.
class IPLUGINAPI_IMPL : public IPLUGINAPI, public CModel {
 public:
  /// Reads the poll interval from piRVX.ini. The machine must outlive the instance.
  explicit IPLUGINAPI_IMPL(OS::COperatingSystem& os);
  /// Does not stop the threads: DeInitialize does.
  ~IPLUGINAPI_IMPL() override;

  unsigned int Execute(PI::_COMMAND command, unsigned long objectID, void* data) override;

  /// @name Lifecycle. The framework calls these one after the other.
  /// @{
  unsigned int Initialize(std::vector<PI::CAdapterID>& adapterIDs);
  /// Starts the threads that do not run. PI::OK also when the system has none left: the error log tells, and
  /// a repeated command starts what is missing.
  unsigned int SetAdapterIDs(const std::vector<PI::CAdapterID>& adapterIDs);
  /// Takes no lock. Ends after 26 s of sleeping at most, whatever the threads and the clock do. A thread that
  /// hangs in the kernel then outlives it: ask HasRunningThread.
  unsigned int DeInitialize();
  /// Whether a thread may still touch the instance, after so many milliseconds for each to end.
  bool HasRunningThread(unsigned long time = 0) const;
  /// @}

  /// @name Requests; each holds m_DataLock for its whole duration
  /// @{
  unsigned int GetTopology(std::vector<PI::CObject>& objects);
  unsigned int GetProperties(unsigned long id, std::vector<PI::CProperty>& properties);
  unsigned int GetProperty(unsigned long& id, PI::CProperty& property);
  unsigned int SetProperty(unsigned long& id, PI::CProperty& property);
  unsigned int GetOperations(unsigned long& id, std::vector<PI::COperation>& operations);
  unsigned int CheckOperation(unsigned long& id, PI::COperation& operation);
  unsigned int ExecuteOperation(unsigned long& id, PI::COperation& operation);
  /// @}

  /// @name Offered to the framework beside the operations
  /// @{
  /// As CreateDedicatedHotSpare, for a drive that takes the place of a missing one.
  ZQ_API unsigned int CreateMissingDrive(CRVXPhysicalDrive& drive, int arrayNumber) ZQ_REQUIRES(m_DataLock);
  /// The member that is being rebuilt: (major << 8) | minor.
  ZQ_API unsigned int FindRebuildingPhysicalDrive(int arrayNumber, int& diskID) ZQ_REQUIRES(m_DataLock);
  /// The member that needs a rebuild: (major << 8) | minor.
  ZQ_API unsigned int FindPhysicalDriveForRebuild(int arrayNumber, int& diskID) ZQ_REQUIRES(m_DataLock);
  /// @}

  /// @name Threads: bodies and their steps
  /// @{
  void Worker();
  void EventPoll();
  /// One turn after a wake-up of the worker, by the waiter's result. False: the thread ends.
  bool WorkerTurn(unsigned int wakeUp, SWorkerState& state);
  /// One pass; skipped when a lock is busy.
  void WorkerPass(SWorkerState& state);
  /// The length of the worker's next interval in milliseconds.
  unsigned long NextInterval() const ZQ_NO_THREAD_SAFETY_ANALYSIS;
  /// One round of the poller. False: the thread ends. Throws KVT::CSystemException when select fails.
  bool EventPollRound(SPollerState& state);
  /// @}

 protected:
  /// @name Discovery
  /// @{
  /// Fills the containers with what the machine has now; `newIDs`: everything gets a fresh identifier and the
  /// containers may be the model itself. Queues the events that follow from comparing with the model.
  unsigned int ScanSystem(CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
                          std::vector<CRVXLogicalDrive>& logicalDrives, bool newIDs) ZQ_REQUIRES(m_DataLock);
  /// Merges a scan into the model: PI::OK when anything changed, PI::ERR_GENERAL when nothing did.
  unsigned int UpdateSystem(CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
                            std::vector<CRVXLogicalDrive>& logicalDrives) ZQ_REQUIRES(m_DataLock);
  /// @}

  /// @name The plug-in object
  /// @{
  unsigned int GetPluginProperties(CRVXPlugin&, std::vector<PI::CProperty>&, PI::_PROPERTY_ID)
      ZQ_REQUIRES(m_DataLock);
  unsigned int SetPluginProperty(CRVXPlugin&, PI::CProperty&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetPluginOperations(CRVXPlugin&, std::vector<PI::COperation>&) ZQ_REQUIRES(m_DataLock);
  unsigned int CheckPluginOperation(CRVXPlugin&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int ExecutePluginOperation(CRVXPlugin&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetEvents(CRVXPlugin&, PI::COperation&);
  /// @}

  /// @name The adapter
  /// @{
  unsigned int GetAdapterProperties(CRVXAdapter&, std::vector<PI::CProperty>&, PI::_PROPERTY_ID)
      ZQ_REQUIRES(m_DataLock);
  unsigned int SetAdapterProperty(CRVXAdapter&, PI::CProperty&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetAdapterOperations(CRVXAdapter&, std::vector<PI::COperation>&) ZQ_REQUIRES(m_DataLock);
  unsigned int CheckAdapterOperation(CRVXAdapter&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int ExecuteAdapterOperation(CRVXAdapter&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetRaidLevelInformation(CRVXAdapter&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int CreateLogicalDrive(CRVXAdapter&, PI::CLogicalDrive& request) ZQ_REQUIRES(m_DataLock);
  int GetUnusedArrayName(char* buffer) ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteLogicalDriveAllowed(CRVXLogicalDrive& array, unsigned int* reason)
      ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteLogicalDrive(CRVXLogicalDrive& array) ZQ_REQUIRES(m_DataLock);
  /// @}

  /// @name Physical drives
  /// @{
  unsigned int GetPhysicalDriveProperties(CRVXPhysicalDrive&, std::vector<PI::CProperty>&, PI::_PROPERTY_ID)
      ZQ_REQUIRES(m_DataLock);
  unsigned int SetPhysicalDriveProperty(CRVXPhysicalDrive&, PI::CProperty&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetPhysicalDriveOperations(CRVXPhysicalDrive&, std::vector<PI::COperation>&)
      ZQ_REQUIRES(m_DataLock);
  unsigned int CheckPhysicalDriveOperation(CRVXPhysicalDrive&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int ExecutePhysicalDriveOperation(CRVXPhysicalDrive&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int CreateDedicatedHotSpare(CRVXPhysicalDrive& drive, int arrayNumber) ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteDedicatedHotSpare(CRVXPhysicalDrive& drive) ZQ_REQUIRES(m_DataLock);
  /// @}

  /// @name Logical drives
  /// @{
  unsigned int GetLogicalDriveProperties(CRVXLogicalDrive&, std::vector<PI::CProperty>&, PI::_PROPERTY_ID)
      ZQ_REQUIRES(m_DataLock);
  unsigned int SetLogicalDriveProperty(CRVXLogicalDrive&, PI::CProperty&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetLogicalDriveOperations(CRVXLogicalDrive&, std::vector<PI::COperation>&)
      ZQ_REQUIRES(m_DataLock);
  unsigned int CheckLogicalDriveOperation(CRVXLogicalDrive&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int ExecuteLogicalDriveOperation(CRVXLogicalDrive&, PI::COperation&) ZQ_REQUIRES(m_DataLock);
  unsigned int GetLogicalDriveConfiguration(CRVXLogicalDrive&, PI::CLogicalDrive&,
                                            std::vector<CRVXPhysicalDrive>&) ZQ_REQUIRES(m_DataLock);
  /// @}

  KVT::Threading::CEvent m_ForceWorker;
  KVT::Threading::CEvent m_StopRequest;
  KVT::Threading::CEvent m_PrivateEvent;
  std::vector<PI::CAdapterID> m_AdapterIDs;  ///< of the framework's thread
  /// Seconds; the worker reads it unlocked.
  std::atomic<std::uint32_t> m_PollInterval{DEFAULT_POLL_INTERVAL};
  std::array<std::uint8_t, 9> m_Flags{};  ///< reserved by the framework's layout
  std::unique_ptr<KVT::Threading::CThread> m_WorkerThread;
  std::unique_ptr<KVT::Threading::CThread> m_EventPollThread;
  PI::CConfigFile m_ConfigFile;

  static constexpr std::uint32_t DEFAULT_POLL_INTERVAL = 10;
  static constexpr int MIN_POLL_INTERVAL = 2;
  static constexpr int MAX_POLL_INTERVAL = 255;

 private:
  /// @name Operations: all that there is of each in one row
  /// @{
  static const SOperationRow<CRVXPlugin> PLUGIN_OPERATIONS[];
  static const SOperationRow<CRVXAdapter> ADAPTER_OPERATIONS[];
  static const SOperationRow<CRVXPhysicalDrive> DRIVE_OPERATIONS[];
  static const SOperationRow<CRVXLogicalDrive> ARRAY_OPERATIONS[];
  /// @}

  template <class... TArguments>
  struct SHandlers;
  template <class... TArguments>
  unsigned int Route(const SHandlers<TArguments...>& handlers, unsigned long id, unsigned long counterStep,
                     std::type_identity_t<TArguments>... arguments);

  unsigned int RefreshModel() ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteAllLogicalDrives() ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteLastLogicalDrive() ZQ_REQUIRES(m_DataLock);
};

/// The instance that createIf made last and releaseIf has not cleared.
extern IPLUGINAPI_IMPL* g_p_IPLUGINAPI_IMPL;

}  // namespace NAMESPACE_piRVX
