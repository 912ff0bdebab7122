// The poller's rounds, both threads on a live machine with framework threads beside them, and what a server
// that runs for months meets: no threads, no memory, hanging calls, nobody who fetches.

#include <pthread.h>

#include <mutex>
#include <thread>

#include "Src/md/ProcTexts.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using namespace std::chrono_literals;

extern "C" CreateIfFunction createIf;
extern "C" ReleaseIfFunction releaseIf;

namespace {

const std::string MACHINE = DisksOf({65536, 65536, 65536, 65536}, MirrorOfTwo("md0"));

/// What the poller does with its file, and select as it is told.
struct EventPollTest : public testing::Test, public SRigOf<CHookedSystem> {
  EventPollTest() : SRigOf(MACHINE) {
    m_Own.m_Hook = [this](const std::string& call) -> CHookedSystem::TAnswer {
      m_Steps += call == "close" && Take(m_Plugin.m_ForceWorker) ? "close too late, " : call + ", ";
      errno = EBADF;  // what a close may leave behind
      if (!call.starts_with("wait")) return {};
      errno = EINTR;
      return m_Select();
    };
  }
  bool Round() { return m_Plugin.EventPollRound(m_Watched); }
  std::function<int()> m_Select = [] { return 0; };
  std::string m_Steps;
  std::unique_ptr<CPolledFile> m_Watched;
};
constexpr char FIRST[] = "open /proc/mdstat, wait 3000, ";
constexpr char QUIET_TURN[] = "wait 3000, open /proc/mdstat, wait 0, close, ";
constexpr char CHANGED[] = "wait 3000, open /proc/mdstat, close, ";

TEST_F(EventPollTest, AChangeWakesTheWorkerAfterTheFileIsClosedAndTheNextIsOpen) {
  EXPECT_TRUE(Round());
  EXPECT_FALSE(Take(m_Plugin.m_ForceWorker));
  m_Select = [] { return 1; };
  EXPECT_TRUE(Round());
  EXPECT_TRUE(Take(m_Plugin.m_ForceWorker));
  m_Select = [looks = 0]() mutable { return looks++; };
  EXPECT_TRUE(Round());
  EXPECT_TRUE(Take(m_Plugin.m_ForceWorker)) << "a change between two rounds";
  m_Select = [this] { return m_Machine.SetFile("/proc/mdstat", std::nullopt), 1; };
  EXPECT_TRUE(Round());
  EXPECT_TRUE(Take(m_Plugin.m_ForceWorker)) << "also where there is no next file";
  m_Plugin.m_StopRequest.Set();
  EXPECT_FALSE(Round());
  EXPECT_EQ(m_Steps, std::string("open /proc/mdstat, ") + QUIET_TURN + CHANGED + QUIET_TURN + CHANGED)
      << "a stop request ends it before anything is opened";
}

TEST_F(EventPollTest, AFailingSelectNamesItsOwnErrorAndEndsTheThreadAlone) {
  m_Select = [] { return -1; };
  const CTraceCapture trace(0);
  m_Plugin.EventPoll();
  EXPECT_THAT(trace.Text(), testing::HasSubstr("EventPoll()- Thread is crashed!\n\nselect: Interrupted"));
  EXPECT_EQ(m_Steps, std::string(FIRST) + "close, ") << "closed once";
  EXPECT_FALSE(Take(m_Plugin.m_ForceWorker) || Take(m_Plugin.m_StopRequest)) << "the worker goes on";
}

TEST_F(EventPollTest, OutlivesAWantOfMemoryAndOfMdWithAPause) {
  m_Select = [this, waits = 0]() mutable {
    if (++waits == 1) throw std::bad_alloc();
    m_Plugin.m_StopRequest.Set();
    return 0;
  };
  const CTraceCapture log(0);
  m_Plugin.EventPoll();
  EXPECT_EQ(m_Steps, Text("%ssleep 3000, %sclose, ", FIRST, QUIET_TURN));
  EXPECT_EQ(log.Count("EventPoll() round failed: std::bad_alloc"), 1U);
  m_Plugin.m_StopRequest.Reset();
  m_Steps.clear();
  m_Machine.SetFile("/proc/mdstat", std::nullopt);
  EXPECT_TRUE(Round());
  EXPECT_EQ(m_Steps, "open /proc/mdstat, sleep 3000, ");
}

TEST(Threads, TheFirstPassComesAtOnceAndTheNextAfterTheInterval) {
  SLiveRig rig(MACHINE);
  const auto passes = [&] { return rig.m_Machine.CommandCount("udevadm") / 4 - 1; };  // but for command 1
  EXPECT_TRUE(Eventually([&] { return passes() == 1; }, 5s));
  EXPECT_FALSE(Eventually([&] { return passes() != 1; }, 300ms));
}

TEST(Threads, AChangeOfMdDoesNotWaitForTheIntervalAndOneOfTheIntervalNotifies) {
  SLiveRig rig(MACHINE);
  const auto looks = [&] { return rig.m_Machine.CommandCount("udevadm"); };
  // Fetches only when a pass is under way, and so waits for its end: a fetch that a pass meets makes it skip.
  const auto bringsEvent = [&](const char* change, unsigned int code) {
    auto before = looks();
    rig.m_Machine.Apply(change);
    return Eventually([&] {
      if (looks() == before) return false;
      before = looks();
      const auto events = rig.m_Plugin.FetchEvents();
      return std::ranges::count(events, code, &PI::CEvent::m_Code) != 0;
    });
  };
  EXPECT_TRUE(Eventually([&] { return looks() > 4; })) << "the first pass, behind the four of command 1";
  rig.m_Plugin.FetchEvents();
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(
      bringsEvent(R"({"fail_member": {"array": "md0", "disk": "sdb"}})", PI::EVT_LOGICALDRIVE_DEGRADED));
  EXPECT_TRUE(bringsEvent(R"({"stop_array": "md0"})", PI::EVT_LOGICALDRIVE_DELETED));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s) << "only the ten-second interval brought them";

  PI::CProperty interval(PI::PROP_POLL_INTERVAL);
  interval.SetValue(30, 2, 255, 1);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, CTestInstance::PLUGIN_ID, &interval), PI::OK);
  EXPECT_TRUE(Eventually([&] { return rig.m_Notifications.Count() == 1; }));
}

/// Changes and what must be reported of each, in this order and once. They end where they began.
const std::pair<const char*, std::vector<unsigned int>> CYCLE[] = {
    {R"({"disk_state": {"sdc": "offline"}})", {PI::EVT_READY_DRIVE_OFFLINE}},
    {R"({"disk_state": {"sdc": "running"}})", {PI::EVT_FAILED_DRIVE_READY}},
    {R"({"remove_disk": "sdd"})", {PI::EVT_PHYSICALDRIVE_REMOVED}},
    {R"({"add_disk": {"name": "sdd", "size": 65536, "controller": "sas"}})", {PI::EVT_PHYSICALDRIVE_ADDED}},
    {R"({"fail_member": {"array": "md0", "disk": "sdb"}})", {PI::EVT_LOGICALDRIVE_DEGRADED}},
    {R"({"remove_member": {"array": "md0", "disk": "sdb"}})", {PI::EVT_FAILED_DRIVE_READY}},
    {R"({"stop_array": "md0"})", {PI::EVT_USED_DRIVE_READY, PI::EVT_LOGICALDRIVE_DELETED}},
    {R"({"add_array": {"name": "md0", "level": "raid1", "members": ["sda", "sdb"]}})",
     {PI::EVT_READY_DRIVE_IN_USE, PI::EVT_READY_DRIVE_IN_USE, PI::EVT_LOGICALDRIVE_ADDED}},
};

TEST(Stress, EveryChangeIsReportedOnceAndInOrder) {
  const char* const setting = std::getenv("RVX_STRESS_SECONDS");
  const auto duration = std::chrono::seconds(setting != nullptr ? std::atoi(setting) : 5);
  SLiveRig rig(MACHINE);
  std::mutex lock;
  std::vector<unsigned int> codes;
  // Without those that come with every pass: the test's rescans, and a failed member that md still holds.
  const auto fetched = [&] {
    const std::lock_guard guard(lock);  // over the fetch: two must not be logged the wrong way round
    for (const PI::CEvent& event : rig.m_Plugin.FetchEvents())
      if (event.m_Code != PI::EVT_RESCAN_REQUESTED && event.m_Code != PI::EVT_FAILED_DRIVE_IN_USE)
        codes.push_back(event.m_Code);
    return codes;
  };
  std::atomic<bool> end{false};
  const auto readAll = [&](int thread) {
    while (!end)
      for (const PI::CObject& object : rig.m_Plugin.Topology()) {
        std::vector<PI::CProperty> properties;
        std::vector<PI::COperation> operations;
        PI::CProperty property(PI::PROP_STATUS);
        rig.m_Plugin.Execute(PI::CMD_GET_PROPERTIES, object.m_ID, &properties);
        rig.m_Plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &property);
        rig.m_Plugin.Execute(PI::CMD_GET_OPERATIONS, object.m_ID, &operations);
        Check(rig.m_Plugin, object.m_ID, Operation(PI::OP_DELETE_ALL_LOGICAL_DRIVES));
        fetched();
        std::this_thread::sleep_for(std::chrono::milliseconds(6 * thread));  // leave the worker its turns
      }
  };
  std::vector<std::thread> threads;
  for (int thread = 1; thread <= 8; ++thread) threads.emplace_back(readAll, thread);

  std::vector<unsigned int> expected;
  std::size_t step = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (; std::chrono::steady_clock::now() - begin < duration && !testing::Test::HasFailure(); ++step) {
    const auto& [change, events] = CYCLE[step % std::size(CYCLE)];
    SCOPED_TRACE(testing::Message() << "step " << step << ": " << change);
    // Between two passes: one that meets the change half-way reports it in another order.
    rig.m_Plugin.m_DataLock.Wait();
    rig.m_Machine.Apply(change);
    rig.m_Plugin.m_DataLock.Release();
    expected.insert(expected.end(), events.begin(), events.end());
    EXPECT_TRUE(Eventually([&] {
      Execute(rig.m_Plugin, CTestInstance::PLUGIN_ID + 1, Operation(PI::OP_RESCAN_ADAPTER));
      std::this_thread::sleep_for(5ms);
      return fetched().size() >= expected.size();
    }));
    EXPECT_EQ(fetched(), expected);
  }
  end = true;
  for (std::thread& thread : threads) thread.join();
  const auto asked = std::chrono::steady_clock::now();
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 4s);
  EXPECT_FALSE(rig.m_Plugin.HasRunningThread());
  EXPECT_EQ(fetched(), expected) << "something came late or twice";
  EXPECT_GE(step, std::size(CYCLE)) << "too slow to have gone through every change";
}

/// While it lives, no thread can be made: its stack would not fit into any address space.
class CNoThreads {
 public:
  CNoThreads() {
    pthread_getattr_default_np(&m_Before);
    pthread_attr_t none;
    pthread_getattr_default_np(&none);
    pthread_attr_setstacksize(&none, std::size_t{1} << 47);
    EXPECT_EQ(pthread_setattr_default_np(&none), 0);
  }
  ~CNoThreads() { pthread_setattr_default_np(&m_Before); }

 private:
  pthread_attr_t m_Before;
};

TEST(Threads, ThatCannotBeHadAreToldOfAndStartedByTheNextCommand) {
  SRigOf<> rig(MACHINE, Simulation::CSimulatedSystem::EClock::Real);
  const CTraceCapture log(0);
  {
    const CNoThreads none;
    EXPECT_EQ(rig.m_Plugin.StartThreads(), PI::OK);
  }
  EXPECT_EQ(log.Count("SetAdapterIDs() can't start the thread "), 2U);
  EXPECT_THAT(log.Text(),
              testing::ContainsRegex("EventPoll: pthread_create[^\n]*\n[^\n]*Worker: pthread_create"))
      << "the poller first";
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
  rig.m_Plugin.m_StopRequest.Reset();
  EXPECT_EQ(rig.m_Plugin.StartThreads(), PI::OK);
  EXPECT_TRUE(rig.m_Plugin.HasRunningThread());
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
}

TEST(Threads, ARepeatedCommandAndThePassesDoNotMeetInTheDescription) {
  SLiveRig rig(MACHINE);  // what it looks for, the thread sanitizer finds
  PI::CAdapterID number;
  number.m_AdapterNumber = 3;
  const auto* const worker = rig.m_Plugin.m_WorkerThread.get();
  for (int round = 0; round < 200; ++round) {
    rig.m_Plugin.m_ForceWorker.Set();
    EXPECT_EQ(rig.m_Plugin.StartThreads({number}), PI::OK);
  }
  EXPECT_EQ(rig.m_Plugin.m_WorkerThread.get(), worker) << "no second pair is started";
}

TEST(Release, LeavesAnInstanceInPlaceThatAThreadStillUses) {
  const CConfigFolder config;
  Simulation::CSimulatedSystem machine(MACHINE, Simulation::CSimulatedSystem::EClock::Real);
  CHookedSystem door(machine);
  std::atomic<bool> sticks{false};
  std::atomic<bool> stuck{false};
  door.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
    while (call == "ioctl" && sticks) {
      stuck = true;
      std::this_thread::yield();  // unlike a sleep no cancellation point
    }
    return call.starts_with("sleep") ? CHookedSystem::TAnswer(0) : std::nullopt;
  };
  UseMachine(&door);
  IPLUGINAPI* plugin = nullptr;
  ASSERT_EQ(createIf(&plugin), PI::OK);
  std::vector<PI::CAdapterID> ids;
  ASSERT_EQ(plugin->Execute(PI::CMD_INITIALIZE, 0, &ids), PI::OK);
  auto* const instance = static_cast<IPLUGINAPI_IMPL*>(plugin);
  const CTraceCapture log(0);
  sticks = true;
  plugin->Execute(PI::CMD_SET_ADAPTER_IDS, 0, &ids);
  ASSERT_TRUE(Eventually([&] { return stuck.load(); }));
  EXPECT_EQ(plugin->Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
  releaseIf(&plugin);
  EXPECT_EQ(plugin, nullptr);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, nullptr);
  EXPECT_EQ(log.Count("releaseIf() a thread still runs: its instance is left in place"), 1U);
  sticks = false;
  // The call comes back, to memory that is still there; then the cancellation takes hold.
  ASSERT_TRUE(Eventually([&] { return !instance->HasRunningThread(); }));
  delete instance;
  UseMachine(nullptr);
}

TEST(Udevadm, ThatHangsIsAskedOncePerPassAndAgainByTheNext) {
  SRigOf<CHookedSystem> rig(MACHINE);
  const CTraceCapture log(0);
  std::size_t runs = 0;
  const auto answers =
      std::exchange(rig.m_Own.m_Hook, [&](const std::string& call) -> CHookedSystem::TAnswer {
        if (call != "run udevadm") return {};
        ++runs;
        return 130;  // out of time
      });
  for (std::size_t pass = 1; pass <= 2; ++pass) {
    rig.Pass();
    EXPECT_EQ(runs, pass);
    EXPECT_EQ(log.Count("udevadm gave no answer about sda in time: this scan asks about no further disk"),
              pass);
  }
  EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 0U);
  rig.m_Own.m_Hook = answers;
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 4U);
}

TEST(Events, NobodyFetchesTakeBoundedMemoryAndTheOldestGo) {
  SRig rig(MACHINE);
  const CTraceCapture log(0);
  rig.m_Plugin.m_EventQueue.resize(100'000);
  for (int more = 0; more < 3; ++more)
    Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_RESCAN_ADAPTER));
  const auto events = rig.m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 100'000U);
  EXPECT_EQ(events[events.size() - 3].m_Code, PI::EVT_RESCAN_REQUESTED);
  EXPECT_EQ(log.Count("100000 events wait to be fetched: the oldest are dropped from now on"), 1U);
}

TEST(Partitions, AreReadInLinearTime) {
  std::string text = "major minor  #blocks  name\n\n";
  constexpr int ENTRIES = 200'000;
  for (int entry = 0; entry < ENTRIES; ++entry) text += " 8 " + std::to_string(entry) + " 1048576 sda\n";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Md::ParsePartitions(text).size(), static_cast<std::size_t>(ENTRIES));
  // A fraction of a second; half a minute when each entry measures the rest of the text.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

}  // namespace
