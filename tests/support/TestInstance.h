#pragma once
/// @file
/// A plug-in instance whose model tests can see, and the machine under it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "Src/piRVXPlugin.h"
#include "simulator/SimulatedSystem.h"
#include "tests/support/FaultySystem.h"
#include "tests/support/TraceCapture.h"

namespace NAMESPACE_piRVX {

/// The machine that createIf uses in the tests.
void UseMachine(OS::COperatingSystem* machine);

/// A configuration folder of its own for as long as it lives; ZQ_CONFIG_DIR names it.
struct CConfigFolder {
  std::string File() const { return m_Folder.Path("piRVX.ini"); }
  void Write(const std::string& text) const { m_Folder.Write("piRVX.ini", text); }
  std::string Read() const { return m_Folder.Read("piRVX.ini"); }

  const CTemporaryFolder m_Folder;
  const CEnvironmentVariable m_Place{"ZQ_CONFIG_DIR", m_Folder.Path()};
};

/// The drive or array with this kernel name; the test fails hard when there is none.
template <class TObject>
TObject& Named(std::vector<TObject>& list, const std::string& name) {
  for (TObject& object : list)
    if (object.m_KernelName == name) return object;
  throw std::out_of_range("no " + name);
}

/// The instance with its inside out. Tests of one thread need no lock.
class CTestInstance : public IPLUGINAPI_IMPL {
 public:
  using IPLUGINAPI_IMPL::IPLUGINAPI_IMPL;

  using IPLUGINAPI_IMPL::GetLogicalDriveConfiguration;
  using IPLUGINAPI_IMPL::GetPhysicalDriveProperties;
  using IPLUGINAPI_IMPL::GetUnusedArrayName;
  using IPLUGINAPI_IMPL::ScanSystem;
  using IPLUGINAPI_IMPL::UpdateSystem;

  using IPLUGINAPI_IMPL::m_AdapterIDs;
  using IPLUGINAPI_IMPL::m_ForceWorker;
  using IPLUGINAPI_IMPL::m_PollInterval;
  using IPLUGINAPI_IMPL::m_PrivateEvent;
  using IPLUGINAPI_IMPL::m_StopRequest;
  using IPLUGINAPI_IMPL::m_WorkerThread;

  static bool IsFree(KVT::Threading::Native_OS::CFastMutex& lock);
  /// Commands 1 and 2, then 4, 5 and 6, which must succeed.
  unsigned int Begin();
  unsigned int StartThreads(std::vector<PI::CAdapterID> adapterIDs = {});
  std::vector<PI::CObject> Topology();
  std::vector<PI::CProperty> Properties(unsigned long id);
  PI::CProperty Property(unsigned long id, PI::_PROPERTY_ID which);
  CRVXPhysicalDrive& Drive(const std::string& name) { return Named(m_PhysicalDrives, name); }
  CRVXLogicalDrive& Array(const std::string& name) { return Named(m_LogicalDrives, name); }
  static constexpr unsigned long PLUGIN_ID = 295UL << 48;
  /// As a front end does it, safe beside the threads.
  std::vector<PI::CEvent> FetchEvents();
  /// The queued events, or the objects of those with a code; the queue is emptied.
  std::vector<PI::CEvent> TakeEvents();
  std::vector<unsigned long> TakeObjects(unsigned int code);
  /// The same as text, each "code/severity first,second placeholder ", with "of" its object where that is not
  /// this one. The adapter must report them all, and now.
  std::string TakeEventText(unsigned long object);
};

/// What a scan finds, in containers of its own as the worker makes them. The model is as it was.
struct SFound {
  explicit SFound(CTestInstance& plugin, bool newIDs = false)
      : m_Status(plugin.ScanSystem(m_Adapter, m_Drives, m_Arrays, newIDs)) {}
  CRVXPhysicalDrive& Drive(const std::string& name) { return Named(m_Drives, name); }
  CRVXLogicalDrive& Array(const std::string& name) { return Named(m_Arrays, name); }

  CRVXAdapter m_Adapter;
  std::vector<CRVXPhysicalDrive> m_Drives;
  std::vector<CRVXLogicalDrive> m_Arrays;
  unsigned int m_Status;
};

/// Counts a plug-in's notifications that come while its model is free for requests: a framework may wait in
/// one for another thread that asks the plug-in.
class CNotificationCounter : public INotificationTarget {
 public:
  explicit CNotificationCounter(CTestInstance& plugin) : m_Plugin(plugin) {
    plugin.m_pNotificationTarget = this;
    plugin.m_pNotification = static_cast<IPLUGINAPI::Notification>(&CNotificationCounter::Notify);
  }
  int Count() const { return m_Count; }

 private:
  void Notify(IPLUGINAPI* plugin) {
    if (plugin == &m_Plugin && CTestInstance::IsFree(m_Plugin.m_DataLock)) ++m_Count;
  }
  CTestInstance& m_Plugin;
  std::atomic<int> m_Count{0};
};

/// A simulated machine, a door of the test's own in front of it, a door that fails calls, and an instance
/// before command 1. Whatever a test does, nothing may be open or held at its end, or have been prepared in
/// vain.
template <class TDoor = OS::CForwardingSystem>
struct SBareRig {
  explicit SBareRig(const std::string& description = Simulation::CSimulatedSystem::DemoDescription(),
                    Simulation::CSimulatedSystem::EClock clock = Simulation::CSimulatedSystem::EClock::Manual)
      : m_Machine(description, clock) {}
  ~SBareRig() {
    EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
    EXPECT_THAT(m_Machine.UnusedFiles(), testing::IsEmpty()) << "prepared, and nobody looked at them";
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_DataLock));
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_EventsLock));
  }

  CConfigFolder m_Config;
  Simulation::CSimulatedSystem m_Machine;
  TDoor m_Own{m_Machine};
  CFaultySystem m_System{m_Own};
  CTestInstance m_Plugin{m_System};
  CNotificationCounter m_Notifications{m_Plugin};
};

/// The same after command 1.
template <class TDoor = OS::CForwardingSystem>
struct SRigOf : public SBareRig<TDoor> {
  explicit SRigOf(const std::string& description = Simulation::CSimulatedSystem::DemoDescription(),
                  Simulation::CSimulatedSystem::EClock clock = Simulation::CSimulatedSystem::EClock::Manual)
      : SBareRig<TDoor>(description, clock) {
    if (this->m_Plugin.Begin() != PI::OK) throw std::runtime_error("the plug-in does not initialise");
  }

  void Pass() { this->m_Plugin.WorkerPass(m_Worker); }

  SWorkerState m_Worker;
};
using SRig = SRigOf<>;

/// Both threads on a machine that follows the wall clock.
struct SLiveRig : public SRigOf<> {
  explicit SLiveRig(const std::string& description)
      : SRigOf(description, Simulation::CSimulatedSystem::EClock::Real) {
    m_Plugin.StartThreads();
  }
  ~SLiveRig() { m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr); }
};

/// A file of tests/plugin, and the comparison with one: it shows the lines that differ.
std::string GoldenText(const std::string& file);
void ExpectGolden(const std::string& file, const std::string& text);

const PI::CProperty* Find(const std::vector<PI::CProperty>& list, PI::_PROPERTY_ID id);
/// A value as text; choices and limits follow the value.
std::string Shown(const PI::CProperty& property);

}  // namespace NAMESPACE_piRVX
