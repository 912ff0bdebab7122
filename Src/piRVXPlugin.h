#pragma once
/// @file
/// The plug-in's instance.

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "KVT/Threading.h"
#include "PI/Helpers.h"
#include "PI/Object.h"
#include "PI/PluginApi.h"
#include "Src/md/Array.h"
#include "Src/md/Superblock.h"
#include "Src/piRVXETR.h"
#include "Src/piRVXObjects.h"
#include "system/OperatingSystem.h"

namespace NAMESPACE_piRVX {

/// One drive's SMART block and when it was read.
struct CCachedSmartData {
  std::string m_DevicePath;
  std::uint64_t m_Time;  ///< milliseconds since 1970
  PI::_IDE_SMART_DATA m_Data;
};

/// SMART blocks of all drives; process-wide, and so under a lock of its own: an instance that was left to a
/// thread that hangs in a disk may have a successor. Lives as long as the process.
extern std::vector<CCachedSmartData>& gSmartData;

/// What the worker keeps from pass to pass.
struct SWorkerState {
  bool m_Force{false};
  std::uint64_t m_LastSmartCheck{0};  ///< milliseconds since 1970, 0: none yet
};

/// The one instance: owns the model, the event queue and the threads. All statuses are PI::_STATUS values.
/// Members that need a lock say so; lock order is m_DataLock before m_EventsLock.
class IPLUGINAPI_IMPL : public IPLUGINAPI {
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
  bool EventPollRound();
  /// @}

 protected:
  /// @name Objects and events
  /// @{
  unsigned long NewID() ZQ_REQUIRES(m_DataLock);
  /// Sets busy marks: of all objects (`all` < 0), of one drive, of one array, or of the adapter.
  unsigned int LockObjects(int all, int major, int minor, int arrayNumber) ZQ_REQUIRES(m_DataLock);
  unsigned int UnlockObjects() ZQ_REQUIRES(m_DataLock);
  /// An event that the adapter reports now.
  PI::CEvent MakeEvent(unsigned int code, unsigned long objectID, const std::string& placeHolder1,
                       const std::string& placeHolder2) ZQ_REQUIRES(m_DataLock);
  /// Takes m_EventsLock for each append alone; the worker holds it already. `source` and `line` are the
  /// caller's, for the trace. The first form cannot fail.
  void QueueEvents(std::list<PI::CEvent>& events, const char* source, int line = __builtin_LINE())
      ZQ_REQUIRES(m_DataLock);
  void QueueEvent(const PI::CEvent& event, const char* source, int line = __builtin_LINE())
      ZQ_REQUIRES(m_DataLock);
  /// The first array of this number.
  CRVXLogicalDrive* FindLogicalDrive(std::uint32_t arrayNumber) ZQ_REQUIRES(m_DataLock);
  CRVXPhysicalDrive* FindPhysicalDrive(std::uint32_t major, std::uint32_t minor) ZQ_REQUIRES(m_DataLock);
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

  /// @name Discovery
  /// @{
  /// The sysfs folder of the PCI function that a disk hangs on; empty when it cannot be told.
  std::string GetHostPath(const std::string& deviceName);
  /// True when the disk hangs on a supported controller.
  bool checkpd(const std::string& devicePath, const char* deviceName);
  /// Fills the containers with what the machine has now; `newIDs`: everything gets a fresh identifier and the
  /// containers may be the model itself. Queues the events that follow from comparing with the model.
  unsigned int ScanSystem(CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
                          std::vector<CRVXLogicalDrive>& logicalDrives, bool newIDs) ZQ_REQUIRES(m_DataLock);
  /// Merges a scan into the model: PI::OK when anything changed, PI::ERR_GENERAL when nothing did.
  unsigned int UpdateSystem(CRVXAdapter& adapter, std::vector<CRVXPhysicalDrive>& physicalDrives,
                            std::vector<CRVXLogicalDrive>& logicalDrives) ZQ_REQUIRES(m_DataLock);
  /// Rebuilds an array's configuration document; true when it is another one now. It stays as it is when the
  /// array cannot be asked.
  bool BuildConfiguration(CRVXLogicalDrive& array, std::vector<CRVXPhysicalDrive>& drives)
      ZQ_REQUIRES(m_DataLock);
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
  /// Puts the name of a free array into the buffer of at least 30 bytes and sees to its device node; -1: none
  /// is free.
  int GetUnusedArrayName(char* buffer) ZQ_REQUIRES(m_DataLock);
  /// Whether an array may be deleted; raises `*reason`, which the caller preset, when it is in use.
  unsigned int DeleteLogicalDriveAllowed(CRVXLogicalDrive& array, unsigned int* reason)
      ZQ_REQUIRES(m_DataLock);
  /// Stops an array and wipes its members' superblocks. Callers have checked.
  unsigned int DeleteLogicalDrive(CRVXLogicalDrive& array) ZQ_REQUIRES(m_DataLock);
  /// @}

  /// @name md superblocks
  /// @{
  /// Fills 16 random bytes.
  unsigned int GetUUID(unsigned char* uuid);
  /// Appends the text form: four groups of eight lower-case hexadecimal digits.
  static void UUID2String(const unsigned char* uuid, std::string& text);
  /// Fills the array-wide fields; always PI::OK. The second argument is ignored.
  unsigned int CreateSuperBlock1(const mdu_array_info_s* info, unsigned int* unused, const char* name,
                                 Md::md_superblock1* superBlock);
  /// Completes the record for this member, in place, and writes it to the member's end.
  unsigned int WriteSuperBlock1(CRVXPhysicalDrive& drive, Md::md_superblock1* superBlock)
      ZQ_REQUIRES(m_DataLock);
  /// Reads what stands where the drive's superblock would; PI::OK says nothing about its contents.
  unsigned int GetSuperBlock1(int major, int minor, Md::md_superblock1* superBlock) ZQ_REQUIRES(m_DataLock);
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
  /// Fields all ones where the drive tells nothing; only solid-state ATA disks are asked.
  PI::CSmartValues ReadSmartValues(const CRVXPhysicalDrive& drive) ZQ_REQUIRES(m_DataLock);
  /// A drive's SMART block, at most five minutes old. The record may be filled on failure too.
  unsigned int GetSmartData(const std::string& devicePath, PI::_IDE_SMART_DATA& data) ZQ_REQUIRES(m_DataLock);
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
  /// Asks md for the array's level and members; writes level, stripe size and used size back into the array
  /// and the membership into the drives.
  unsigned int GetLogicalDriveConfiguration(CRVXLogicalDrive&, PI::CLogicalDrive&,
                                            std::vector<CRVXPhysicalDrive>&) ZQ_REQUIRES(m_DataLock);
  /// @}

  KVT::Threading::Native_OS::CFastMutex m_DataLock;
  KVT::Threading::Native_OS::CFastMutex m_EventsLock;
  KVT::Threading::CEvent m_ForceWorker;
  KVT::Threading::CEvent m_StopRequest;
  KVT::Threading::CEvent m_PrivateEvent;
  CRVXPlugin m_Plugin ZQ_GUARDED_BY(m_DataLock);
  CRVXAdapter m_Adapter ZQ_GUARDED_BY(m_DataLock);
  std::vector<CRVXPhysicalDrive> m_PhysicalDrives ZQ_GUARDED_BY(m_DataLock);
  std::vector<CRVXLogicalDrive> m_LogicalDrives ZQ_GUARDED_BY(m_DataLock);
  std::vector<PI::CETR> m_Estimators ZQ_GUARDED_BY(m_DataLock);
  std::vector<PI::CAdapterID> m_AdapterIDs;  ///< of the framework's thread
  std::vector<CSysFSEntry> m_SysFSEntries ZQ_GUARDED_BY(m_DataLock);
  std::int64_t m_MdMajor ZQ_GUARDED_BY(m_DataLock){
      -1};  ///< major number of partitionable md devices, -1: none
  /// A list: taking in events that are made already, and dropping the oldest, cannot fail.
  std::list<PI::CEvent> m_EventQueue ZQ_GUARDED_BY(m_EventsLock);
  bool m_EventsDropped ZQ_GUARDED_BY(m_EventsLock){false};  ///< since the last fetch
  /// All ones: no long operation is pending. Nothing sets it yet; deletions already heed it.
  std::uint32_t m_PendingOperation ZQ_GUARDED_BY(m_DataLock){NO_PENDING_OPERATION};
  std::atomic<std::uint32_t> m_PollInterval{
      DEFAULT_POLL_INTERVAL};               ///< seconds; the worker reads it unlocked
  std::atomic<bool> m_UdevadmHangs{false};  ///< in this scan: no further disk is asked about
  std::uint64_t m_NextID ZQ_GUARDED_BY(m_DataLock){0};
  std::array<std::uint8_t, 9> m_Flags{};  ///< reserved by the framework's layout
  std::unique_ptr<KVT::Threading::CThread> m_WorkerThread;
  std::unique_ptr<KVT::Threading::CThread> m_EventPollThread;
  PI::CConfigFile m_ConfigFile;
  OS::COperatingSystem& m_OS;

  static constexpr std::uint32_t NO_PENDING_OPERATION = 0xFFFFFFFFU;
  static constexpr std::uint32_t DEFAULT_POLL_INTERVAL = 10;
  static constexpr int MIN_POLL_INTERVAL = 2;
  static constexpr int MAX_POLL_INTERVAL = 255;
  /// Events that wait for a front end at most; the oldest go.
  static constexpr std::size_t MAX_EVENTS = 100000;

 private:
  template <class... TArguments>
  struct SHandlers;
  template <class... TArguments>
  unsigned int Route(const SHandlers<TArguments...>& handlers, unsigned long id, unsigned long counterStep,
                     std::type_identity_t<TArguments>... arguments);

  bool IsStopping() { return m_StopRequest.Wait(0) == KVT::Threading::WAIT_OK; }
  /// One run of the scan.
  struct SScan {
    CRVXAdapter& m_Adapter;
    std::vector<CRVXPhysicalDrive>& m_PhysicalDrives;
    bool m_NewIDs;
  };
  /// What the model knew of an array before the scan.
  struct SArrayHistory {
    std::uint32_t m_Status{PI::STATUS_OK};
    std::uint32_t m_Activity{PI::ACTIVITY_NONE};
  };
  /// A stop request ends these two at the next disk or array: false, and the scan has failed.
  bool ScanDisks(const SScan& scan) ZQ_REQUIRES(m_DataLock);
  void ScanDisk(const SScan& scan, CRVXPhysicalDrive& drive) ZQ_REQUIRES(m_DataLock);
  bool ScanArrays(const SScan& scan, std::vector<CRVXLogicalDrive>& logicalDrives) ZQ_REQUIRES(m_DataLock);
  void ScanArray(const SScan& scan, SArrayHistory history, CRVXLogicalDrive& array) ZQ_REQUIRES(m_DataLock);
  void ScanMembers(const SScan& scan, CRVXLogicalDrive& array, const Md::CArray& device)
      ZQ_REQUIRES(m_DataLock);
  void ScanProgress(const SScan& scan, const SArrayHistory& history, CRVXLogicalDrive& array,
                    const mdu_array_info_s& info) ZQ_REQUIRES(m_DataLock);
  void QueueRunEnd(const SArrayHistory& history, const CRVXLogicalDrive& array, const mdu_array_info_s& info)
      ZQ_REQUIRES(m_DataLock);
  void SettleArrayStatus(const SArrayHistory& history, CRVXLogicalDrive& array, const mdu_array_info_s& info)
      ZQ_REQUIRES(m_DataLock);
  /// Queues an event about an object with its kernel name as the second placeholder.
  void QueueNameEvent(unsigned int code, unsigned int severity, const PI::CObject& object,
                      const std::string& name) ZQ_REQUIRES(m_DataLock);

  /// The model as a merge will leave it.
  struct SMerge;
  void MergePhysicalDrives(SMerge& merge, std::vector<CRVXPhysicalDrive>& scanned) ZQ_REQUIRES(m_DataLock);
  void MergeLogicalDrives(SMerge& merge, std::vector<CRVXLogicalDrive>& scanned) ZQ_REQUIRES(m_DataLock);
  void TrimEventQueue() ZQ_REQUIRES(m_EventsLock);

  void NameDeletedArrays() ZQ_REQUIRES(m_DataLock, m_EventsLock);
  unsigned int RefreshModel() ZQ_REQUIRES(m_DataLock);
  bool FollowProgress() ZQ_REQUIRES(m_DataLock);
  void CheckSmart(SWorkerState& state) ZQ_REQUIRES(m_DataLock, m_EventsLock);

  /// Makes the drive a spare of the array; `function` names the caller in traces.
  unsigned int AddSpare(const char* function, CRVXPhysicalDrive& drive, int arrayNumber)
      ZQ_REQUIRES(m_DataLock);
  unsigned int PlaceSpare(const char* function, Md::CArray& device, CRVXPhysicalDrive& drive,
                          Md::md_superblock1& superBlock) ZQ_REQUIRES(m_DataLock);
  unsigned int CollectMembers(const std::vector<PI::CDrive>& wanted, std::vector<CRVXPhysicalDrive*>& members)
      ZQ_REQUIRES(m_DataLock);
  unsigned int AssembleArray(Md::CArray& device, const char* name, mdu_array_info_s info,
                             const std::vector<CRVXPhysicalDrive*>& members) ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteAllLogicalDrives() ZQ_REQUIRES(m_DataLock);
  unsigned int DeleteLastLogicalDrive() ZQ_REQUIRES(m_DataLock);
  void WakeDrive(const std::string& devicePath);
  unsigned int StartRebuild(const CRVXLogicalDrive& array);
  unsigned int CancelRebuild(const CRVXLogicalDrive& array);
  /// The device number of a node: of the opened node, else of the path; none when both fail.
  std::optional<dev_t> DeviceNumber(const std::string& path);
  /// The same of an array's own node, with its trace.
  std::optional<dev_t> ArrayNodeNumber(const CRVXLogicalDrive& array);
  /// Walks an array's members for the two lookups above; `function` names the caller in traces.
  unsigned int FindMember(const char* function, int arrayNumber, int& diskID,
                          bool (*wanted)(const mdu_disk_info_s&, const mdu_array_info_s&))
      ZQ_REQUIRES(m_DataLock);
};

/// The instance that createIf made last and releaseIf has not cleared.
extern IPLUGINAPI_IMPL* g_p_IPLUGINAPI_IMPL;

}  // namespace NAMESPACE_piRVX
