#pragma once
/// @file
/// A plug-in instance whose model tests can see, and the machine under it.

#include <boost/filesystem.hpp>
#include <memory>
#include <string>
#include <vector>

#include "Src/piRVXPlugin.h"
#include "simulator/FaultyMachine.h"
#include "simulator/SimulatedMachine.h"

namespace NAMESPACE_piRVX {

/// The machine that createIf uses in the tests; set it before.
void UseMachine(COperatingSystem* machine);

/// A configuration folder of its own for as long as it lives; ZQ_CONFIG_DIR names it.
class CConfigFolder {
 public:
  CConfigFolder();
  ~CConfigFolder();
  boost::filesystem::path File() const { return m_Folder / "piRVX.ini"; }
  void Write(const std::string& text) const;
  std::string Read() const;

 private:
  boost::filesystem::path m_Folder;
};

/// The instance with its inside out. Tests of one thread need no lock.
class CTestInstance : public IPLUGINAPI_IMPL {
 public:
  using IPLUGINAPI_IMPL::IPLUGINAPI_IMPL;

  using IPLUGINAPI_IMPL::CheckAdapterOperation;
  using IPLUGINAPI_IMPL::CheckLogicalDriveOperation;
  using IPLUGINAPI_IMPL::checkpd;
  using IPLUGINAPI_IMPL::CheckPhysicalDriveOperation;
  using IPLUGINAPI_IMPL::CreateDedicatedHotSpare;
  using IPLUGINAPI_IMPL::CreateLogicalDrive;
  using IPLUGINAPI_IMPL::CreateSuperBlock1;
  using IPLUGINAPI_IMPL::DeleteDedicatedHotSpare;
  using IPLUGINAPI_IMPL::DeleteLogicalDrive;
  using IPLUGINAPI_IMPL::DeleteLogicalDriveAllowed;
  using IPLUGINAPI_IMPL::ExecuteAdapterOperation;
  using IPLUGINAPI_IMPL::ExecuteLogicalDriveOperation;
  using IPLUGINAPI_IMPL::ExecutePhysicalDriveOperation;
  using IPLUGINAPI_IMPL::FindLogicalDrive;
  using IPLUGINAPI_IMPL::FindPhysicalDrive;
  using IPLUGINAPI_IMPL::GetAdapterProperties;
  using IPLUGINAPI_IMPL::GetEvents;
  using IPLUGINAPI_IMPL::GetHostPath;
  using IPLUGINAPI_IMPL::GetLogicalDriveConfiguration;
  using IPLUGINAPI_IMPL::GetLogicalDriveProperties;
  using IPLUGINAPI_IMPL::GetPhysicalDriveProperties;
  using IPLUGINAPI_IMPL::GetSmartData;
  using IPLUGINAPI_IMPL::GetSuperBlock1;
  using IPLUGINAPI_IMPL::GetUnusedArrayName;
  using IPLUGINAPI_IMPL::GetUUID;
  using IPLUGINAPI_IMPL::LockObjects;
  using IPLUGINAPI_IMPL::NewID;
  using IPLUGINAPI_IMPL::ScanSystem;
  using IPLUGINAPI_IMPL::UnlockObjects;
  using IPLUGINAPI_IMPL::UpdateSystem;
  using IPLUGINAPI_IMPL::UUID2String;
  using IPLUGINAPI_IMPL::WriteSuperBlock1;

  using IPLUGINAPI_IMPL::m_Adapter;
  using IPLUGINAPI_IMPL::m_AdapterIDs;
  using IPLUGINAPI_IMPL::m_DataLock;
  using IPLUGINAPI_IMPL::m_Estimators;
  using IPLUGINAPI_IMPL::m_EventPollThread;
  using IPLUGINAPI_IMPL::m_EventQueue;
  using IPLUGINAPI_IMPL::m_EventsLock;
  using IPLUGINAPI_IMPL::m_ForceWorker;
  using IPLUGINAPI_IMPL::m_LogicalDrives;
  using IPLUGINAPI_IMPL::m_MdMajor;
  using IPLUGINAPI_IMPL::m_MdstatDescriptor;
  using IPLUGINAPI_IMPL::m_PendingOperation;
  using IPLUGINAPI_IMPL::m_PhysicalDrives;
  using IPLUGINAPI_IMPL::m_Plugin;
  using IPLUGINAPI_IMPL::m_PollInterval;
  using IPLUGINAPI_IMPL::m_PrivateEvent;
  using IPLUGINAPI_IMPL::m_StopRequest;
  using IPLUGINAPI_IMPL::m_WorkerThread;

  /// True when nobody holds the lock: another thread can take it at once.
  static bool IsFree(KVT::Threading::Native_OS::CFastMutex& lock);
  /// The drive or array with this kernel name; the test fails hard when there is none.
  CRVXPhysicalDrive& Drive(const std::string& name);
  CRVXLogicalDrive& Array(const std::string& name);
  /// The codes of the queued events; the queue is emptied.
  std::vector<unsigned int> TakeEventCodes();
  std::vector<PI::CEvent> TakeEvents();
};

/// Receives the plug-in's notifications.
class CNotificationCounter : public INotificationTarget {
 public:
  void Attach(IPLUGINAPI& plugin);
  int Count() const { return m_Count; }

 private:
  void Notify(IPLUGINAPI* plugin);
  std::atomic<int> m_Count{0};
};

/// A simulated machine and an instance on it that has gone through command 1.
struct SRig {
  explicit SRig(const std::string& description = CSimulatedMachine::DemoDescription());

  CConfigFolder m_Config;
  CSimulatedMachine m_Machine;
  CFaultyMachine m_Door;
  CNotificationCounter m_Notifications;
  CTestInstance m_Plugin;
  SWorkerState m_Worker;

  /// One pass of the worker.
  void Pass() { m_Plugin.WorkerPass(m_Worker); }
};

/// The property of a list with this id; null when it is not there.
const PI::CProperty* Find(const std::vector<PI::CProperty>& list, PI::_PROPERTY_ID id);

}  // namespace NAMESPACE_piRVX
