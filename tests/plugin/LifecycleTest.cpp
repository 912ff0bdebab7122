// From the construction to the end of the threads.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <new>
#include <thread>

#include "Src/piRVXTrace.h"
#include "simulator/ForwardingMachine.h"
#include "tests/support/TestInstance.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

namespace {

/// Initialisations of locks and events that still succeed; the one after them fails. Negative: none fails.
int s_InitsLeft = -1;
constexpr int INIT_FAILED = 7;

bool InitFails() { return s_InitsLeft >= 0 && s_InitsLeft-- == 0; }

template <class TFunction>
TFunction* NextDefinition(const char* symbol) {
  return reinterpret_cast<TFunction*>(::dlsym(RTLD_NEXT, symbol));
}

}  // namespace

// The program's own definitions come before the toolkit's, and pass on to them.
int KVT::Threading::Native_OS::CFastMutex::Init() {
  static auto* const next =
      NextDefinition<int(CFastMutex*)>("_ZN3KVT9Threading9Native_OS10CFastMutex4InitEv");
  return InitFails() ? INIT_FAILED : next(this);
}

int KVT::Threading::CEvent::Init(bool signalled, bool manualReset) {
  static auto* const next = NextDefinition<int(CEvent*, bool, bool)>("_ZN3KVT9Threading6CEvent4InitEbb");
  return InitFails() ? INIT_FAILED : next(this, signalled, manualReset);
}

namespace {

constexpr char STDOUT_LINE[] = "piRVX:  Initialize:  adapter count is 1\n";

/// Command 1, and what it wrote to standard output.
struct SInitialized {
  std::vector<PI::CAdapterID> m_AdapterIDs;
  unsigned int m_Status;
  std::string m_Output;

  explicit SInitialized(IPLUGINAPI& plugin) {
    testing::internal::CaptureStdout();
    m_Status = plugin.Execute(PI::CMD_INITIALIZE, 0, &m_AdapterIDs);
    m_Output = testing::internal::GetCapturedStdout();
  }
};

TEST(PollInterval, IsReadAsANumberAndKeptInItsLimits) {
  const std::pair<const char*, unsigned int> cases[] = {
      {"PollInterval=30\n", 30},   {"PollInterval=2\n", 2},
      {"PollInterval=255\n", 255}, {"PollInterval=1\n", 2},
      {"PollInterval=300\n", 255}, {"PollInterval=0\n", 2},
      {"PollInterval=-5\n", 2},    {"PollInterval=99999999999\n", 10},
      {"PollInterval=ten\n", 10},  {"PollInterval=\n", 10},
      {"PollInterval=7s\n", 10},   {"PollInterval=7.5\n", 10},
      {"PollInterval=0x20\n", 10}, {"PollInterval\n", 10},
      {"Interval=30\n", 10},       {"", 10},
  };
  CSimulatedMachine machine("{}");
  for (const auto& [text, seconds] : cases) {
    const CConfigFolder config;
    config.Write(text);
    EXPECT_EQ(CTestInstance(machine).m_PollInterval, seconds) << text;
  }
  const CConfigFolder config;  // no file
  EXPECT_EQ(CTestInstance(machine).m_PollInterval, 10U);
}

TEST(Initialize, GivesIdentifiersInTheOrderOfTheModelAndLinksIt) {
  const CConfigFolder config;
  CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
  CTestInstance plugin(machine);
  const SInitialized initialized(plugin);
  EXPECT_EQ(initialized.m_Status, PI::OK);
  EXPECT_EQ(initialized.m_Output, STDOUT_LINE);
  std::vector<unsigned long> ids = {plugin.m_Plugin.m_ID, plugin.m_Adapter.m_ID};
  for (const auto& drive : plugin.m_PhysicalDrives) ids.push_back(drive.m_ID);
  for (const auto& array : plugin.m_LogicalDrives) ids.push_back(array.m_ID);
  ASSERT_EQ(ids.size(), 12U);
  for (std::size_t at = 0; at < ids.size(); ++at) EXPECT_EQ(ids[at], 0x0127000000000000UL + at);
  EXPECT_EQ(plugin.NewID(), 0x012700000000000cUL);
  EXPECT_THAT(plugin.m_Plugin.m_Children, ElementsAre(ids[1]));
  EXPECT_THAT(plugin.m_Adapter.m_Parents, ElementsAre(ids[0]));
  EXPECT_EQ(plugin.m_Adapter.m_Children, std::vector<unsigned long>(ids.begin() + 2, ids.end()));
  EXPECT_EQ(plugin.m_Plugin.m_UpdateCounter, 0U);
  EXPECT_EQ(plugin.m_Adapter.m_UpdateCounter, 1U);
  EXPECT_EQ(plugin.m_Adapter.m_Description, "Linux Multiple Devices (0)");
  EXPECT_EQ(plugin.m_WorkerThread, nullptr);
  EXPECT_EQ(plugin.m_EventPollThread, nullptr);

  ASSERT_EQ(initialized.m_AdapterIDs.size(), 1U);
  const PI::CAdapterID& id = initialized.m_AdapterIDs.front();
  EXPECT_EQ(id.m_Text, "");
  EXPECT_THAT((std::vector{id.m_First, id.m_Location1, id.m_Location2, id.m_Location3, id.m_Fifth,
                           id.m_AdapterNumber}),
              ElementsAre(0, 0, 0, 0, 0, -1));
  std::vector<PI::CAdapterID> earlier(2);
  EXPECT_EQ(plugin.Initialize(earlier), PI::OK);
  EXPECT_EQ(earlier.size(), 3U) << "the identifier is appended";
}

TEST(Initialize, StopsAtTheFirstLockThatFails) {
  const char* const texts[] = {"m_DataLock", "m_PrivateEventsLock", "m_ForceWorker", "m_StopRequest",
                               "m_PrivateEvent"};
  for (int failing = 0; const char* const name : texts) {
    SCOPED_TRACE(name);
    const CConfigFolder config;
    CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
    CTestInstance plugin(machine);
    const CTraceCapture trace(TRACE_LIFECYCLE);
    s_InitsLeft = failing++;
    const SInitialized failed(plugin);
    s_InitsLeft = -1;
    EXPECT_EQ(failed.m_Status, PI::ERR_LOCK_INITIALIZATION_FAILED);
    EXPECT_EQ(failed.m_Output, "");
    EXPECT_THAT(trace.Text(),
                testing::HasSubstr(
                    Text("LEAVE Initialize() %s.Init() -> PI::ERR_LOCK_INITIALIZATION_FAILED 7\n", name)));
    EXPECT_EQ(plugin.m_Plugin.m_ID, 0U);
    EXPECT_THAT(plugin.m_PhysicalDrives, IsEmpty());
    const SInitialized again(plugin);
    EXPECT_EQ(again.m_Status, PI::OK);
    EXPECT_EQ(plugin.m_PhysicalDrives.size(), 8U);
  }
}

/// Runs out of memory at the n-th reading.
class CStarvedDoor : public CForwardingMachine {
 public:
  CStarvedDoor(COperatingSystem& machine, int readings) : CForwardingMachine(machine), m_Left(readings) {}
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    if (m_Left-- == 0) throw std::bad_alloc();
    return CForwardingMachine::Read(descriptor, buffer, size);
  }
  int m_Left;
};

TEST(Initialize, AFailedScanLeavesNothingButTheLine) {
  for (const int readings : {0, 1, 4, 30, 60}) {
    SCOPED_TRACE(readings);
    const CConfigFolder config;
    CSimulatedMachine machine(CSimulatedMachine::DemoDescription());
    CStarvedDoor door(machine, readings);
    CTestInstance plugin(door);
    const SInitialized initialized(plugin);
    ASSERT_LT(door.m_Left, 0) << "the scan reads less than that";
    EXPECT_EQ(initialized.m_Status, PI::ERR_SCAN_FAILED);
    EXPECT_EQ(initialized.m_Output, STDOUT_LINE);
    EXPECT_THAT(initialized.m_AdapterIDs, IsEmpty());
    EXPECT_THAT(plugin.m_PhysicalDrives, IsEmpty());
    EXPECT_THAT(plugin.m_LogicalDrives, IsEmpty());
    EXPECT_THAT(plugin.m_Plugin.m_Children, IsEmpty());
    EXPECT_THAT(plugin.m_Adapter.m_Parents, IsEmpty());
    EXPECT_EQ(plugin.m_Plugin.m_UpdateCounter, 1U);
    EXPECT_EQ(plugin.m_Adapter.m_UpdateCounter, 0U);
    EXPECT_TRUE(CTestInstance::IsFree(plugin.m_DataLock));
    EXPECT_TRUE(CTestInstance::IsFree(plugin.m_EventsLock));
    EXPECT_EQ(machine.OpenDescriptors(), 0U);
  }
}

PI::CAdapterID AdapterID(std::int32_t location, std::int32_t number) {
  PI::CAdapterID id;
  id.m_First = id.m_Fifth = 99;  // no part of the comparison
  id.m_Location1 = id.m_Location2 = id.m_Location3 = location;
  id.m_AdapterNumber = number;
  return id;
}

TEST(SetAdapterIDs, TheFirstNumberEverGivenForTheLocationCounts) {
  const struct {
    std::vector<PI::CAdapterID> m_Given;
    const char* m_Description;
    std::size_t m_Stored;
  } steps[] = {
      {{}, "Linux Multiple Devices (0)", 0},
      {{AdapterID(0, -1)}, "Linux Multiple Devices (0)", 1},
      {{AdapterID(1, 8), AdapterID(0, -1), AdapterID(0, 3), AdapterID(0, 4)},
       "Linux Multiple Devices (3)",
       5},
      {{AdapterID(0, 5)}, "Linux Multiple Devices (3)", 6},
  };
  SRig rig;
  rig.m_Plugin.m_StopRequest.Set();  // the threads end at once
  for (const auto& step : steps) {
    auto given = step.m_Given;
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, &given), PI::OK);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Description, step.m_Description);
    EXPECT_EQ(rig.m_Plugin.m_AdapterIDs.size(), step.m_Stored);
    for (const auto* thread : {&rig.m_Plugin.m_WorkerThread, &rig.m_Plugin.m_EventPollThread}) {
      ASSERT_NE(*thread, nullptr);
      EXPECT_EQ((*thread)->Wait(20000), KVT::Threading::WAIT_OK);
    }
  }
}

/// A clock that runs a thousand times faster, and a call that never returns; a cancellation ends it.
class CHangingDoor : public CForwardingMachine {
 public:
  enum class EHang { Nothing, Read, Select };

  using CForwardingMachine::CForwardingMachine;
  std::atomic<EHang> m_Hang{EHang::Nothing};
  std::atomic<bool> m_Hangs{false};
  std::atomic<std::uint64_t> m_Now{0};
  std::vector<std::uint64_t> m_Sleeps;  ///< of the main thread
  const std::thread::id m_Main{std::this_thread::get_id()};

  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    if (m_Hang == EHang::Read) Hang();
    return CForwardingMachine::Read(descriptor, buffer, size);
  }
  int WaitExceptional(int, std::uint64_t) override {
    if (m_Hang == EHang::Select) Hang();
    std::this_thread::sleep_for(1ms);
    return 0;
  }
  std::uint64_t Now() override { return m_Now; }
  void Sleep(std::uint64_t milliseconds) override {
    if (std::this_thread::get_id() == m_Main) {
      m_Sleeps.push_back(milliseconds);
      m_Now += milliseconds;
    }
    std::this_thread::sleep_for(std::chrono::microseconds(milliseconds * 10));
  }

 private:
  // Out of line: the address sanitizer then forgets the callers' frames before a cancellation unwinds them.
  [[noreturn, gnu::noinline]] void Hang() {
    m_Hangs = true;
    while (true) KVT::Misc::msleep(1000);  // a cancellation point that the thread sanitizer follows
  }
};

struct DeInitializeTest : public testing::Test {
  CConfigFolder m_Config;
  CSimulatedMachine m_Machine{CSimulatedMachine::DemoDescription()};
  CHangingDoor m_Door{m_Machine};
  CNotificationCounter m_Notifications;
  CTestInstance m_Plugin{m_Door};

  DeInitializeTest() {
    m_Notifications.Attach(m_Plugin);
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
    m_Door.m_Sleeps.clear();  // the resyncing array's
  }
  void Start() {
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapterIDs);
  }
};

TEST_F(DeInitializeTest, WithoutThreadsItSleepsTwiceAndEnds) {
  EXPECT_EQ(m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
  EXPECT_THAT(m_Door.m_Sleeps, ElementsAre(100U, 100U));
  EXPECT_EQ(m_Plugin.m_StopRequest.Wait(0), KVT::Threading::WAIT_OK);
}

TEST_F(DeInitializeTest, AThreadThatHangsIsCancelledAfterTheBoundAndUnwound) {
  for (const auto hang : {CHangingDoor::EHang::Read, CHangingDoor::EHang::Select}) {
    const bool worker = hang == CHangingDoor::EHang::Read;
    SCOPED_TRACE(worker ? "worker" : "poller");
    m_Door.m_Hang = hang;
    m_Door.m_Hangs = false;
    m_Door.m_Sleeps.clear();
    m_Plugin.m_StopRequest.Reset();
    Start();
    for (const auto end = std::chrono::steady_clock::now() + 20s; !m_Door.m_Hangs;) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "nothing hangs";
      std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(CTestInstance::IsFree(m_Plugin.m_DataLock), !worker);
    EXPECT_GT(m_Machine.OpenDescriptors(), 0U);

    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
    const std::size_t waits = m_Door.m_Sleeps.size();
    ASSERT_GE(waits, 2U);
    EXPECT_EQ(waits - 2, 50U) << "steps of half a second until more than 24999 ms have passed";
    EXPECT_EQ(m_Door.m_Sleeps[1], 500U);
    EXPECT_EQ(m_Plugin.m_WorkerThread->Wait(20000), KVT::Threading::WAIT_OK);
    EXPECT_EQ(m_Plugin.m_EventPollThread->Wait(20000), KVT::Threading::WAIT_OK);
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_DataLock));
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_EventsLock));
    EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
    EXPECT_EQ(trace.Text().find("Kill Worker") != std::string::npos, worker);
    EXPECT_EQ(trace.Text().find("Kill EventPoll") != std::string::npos, !worker);
  }
}

TEST(Trace, TextsThatLogsAreSearchedForKeepTheirSpelling) {
  const struct {
    unsigned int m_Class;
    const char* m_Source;
    const char* m_Text;
  } lines[] = {
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "ENTER Initialize()"},
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "LEAVE Initialize() -> 0"},
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "ENTER GetTopology"},
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "LEAVE GetEvents() -> 0"},
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "LEAVE ExecutePluginOperation() -> 0"},
      {TRACE_LIFECYCLE, "Src/piRVXPlugin", "ENTER DeInitialize"},
      {TRACE_INFORMATION, "Src/piRVXPlugin", "ScanSystem() ret = 0 m_PhysicalDrives=8"},
      {TRACE_INFORMATION, "Src/piRVXPlugin", "GetTopology() Adapter m_ID=0x127000000000001"},
      {TRACE_INFORMATION, "Src/piRVXPlugin", "GetTopology() PhysicalDrive (8/16) m_ID=0x127000000000003"},
      {TRACE_INFORMATION, "Src/piRVXPlugin", "GetTopology() LogicalDrive (1) m_ID=0x12700000000000b"},
      {TRACE_INFORMATION, "Src/piRVX", "GetProperties m_PhysicalDrives=8"},
      {TRACE_INFORMATION, "Src/piRVX", "GetProperty m_PhysicalDrives=8"},
      {TRACE_LOCKS, "Src/piRVX", "Before m_DataLock.Wait (sg)"},
      {TRACE_LOCKS, "Src/piRVX", "After m_DataLock.Wait (sg)"},
      {TRACE_LOCKS, "Src/piRVX", "ENTER CheckOperation operation=50002"},
      {TRACE_LOCKS, "Src/piRVX", "LEAVE CheckOperation(50002)"},
      {TRACE_LOCKS, "Src/piRVX", "LEAVE ExecuteOperation(50002)"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "Before m_EventsLock.Wait(NULL, 0)"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "After m_EventsLock.Release()"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "Before m_EventsLock.Wait(INFINITE)"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "Before m_DataLock.Wait (NULL, 0)"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "After m_EventsLock.Wait (NULL, 0)"},
      {TRACE_LOCKS, "Src/piRVXPlugin", "Before m_EventsLock.Release ()"},
      {TRACE_THREADS, "Src/piRVX", "ENTER GetOperations object=0x127000000000000"},
      {TRACE_THREADS, "Src/piRVX", "LEAVE GetOperations ret=0"},
      {TRACE_THREADS, "Src/piRVXPlugin", "ENTER ScanSystem(1) PhyDrive=0 LogDrive=0"},
      {TRACE_THREADS, "Src/piRVXPlugin", "vor checkpd /sys/block/sda/device sda"},
      {TRACE_THREADS, "Src/piRVXPlugin", "ENTER checkpd(/sys/block/sda/device sda)"},
      {TRACE_THREADS, "Src/piRVXPlugin", "strlen(buffer)=6 vendor=>0x8086<"},
      {TRACE_THREADS, "Src/piRVXPlugin", "Driver 0:0:0:0 base=ahci is supported for RVX"},
      {TRACE_THREADS, "Src/piRVXPlugin", "ScanSystem() can't open /dev/sda exclusive"},
      {TRACE_THREADS, "Src/piRVXPlugin", "ScanSystem() after physicalDrives.push_back 8"},
      {TRACE_THREADS, "Src/piRVXPlugin", "Create new adpID"},
      {TRACE_THREADS, "Src/piRVXPlugin", "LEAVE ScanSystem() -> 0"},
  };
  for (const unsigned int traced : {TRACE_LIFECYCLE, TRACE_INFORMATION, TRACE_LOCKS, TRACE_THREADS}) {
    const CTraceCapture trace(traced);
    {
      SRig rig;
      const unsigned long plugin = rig.m_Plugin.m_Plugin.m_ID;
      std::vector<PI::CObject> objects;
      rig.m_Plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &objects);
      std::vector<PI::CProperty> properties;
      rig.m_Plugin.Execute(PI::CMD_GET_PROPERTIES, plugin, &properties);
      rig.m_Plugin.Execute(PI::CMD_GET_PROPERTY, plugin, &properties.front());
      std::vector<PI::COperation> operations;
      rig.m_Plugin.Execute(PI::CMD_GET_OPERATIONS, plugin, &operations);
      rig.m_Plugin.Execute(PI::CMD_CHECK_OPERATION, plugin, &operations.front());
      rig.m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, plugin, &operations.front());
      rig.Pass();
      rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr);
    }
    for (const auto& line : lines)
      EXPECT_EQ(trace.Shows(line.m_Source, line.m_Text), line.m_Class == traced)
          << line.m_Text << " with classes " << traced;
  }
}

}  // namespace
