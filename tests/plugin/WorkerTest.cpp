// The worker's turns and passes, on a machine whose clock the tests step by hand.

#include <future>

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned int FORCED = 1;
constexpr unsigned int STOPPED = 2;
constexpr unsigned int PRIVATE = 3;

/// Acts while another thread holds a lock.
void WhileHeld(KVT::Threading::Native_OS::CFastMutex& lock, const std::function<void()>& act) {
  std::promise<void> held;
  std::promise<void> done;
  const auto holder = std::async(std::launch::async, [&] {
    lock.Wait();
    held.set_value();
    done.get_future().wait();
    lock.Release();
  });
  held.get_future().wait();
  act();
  done.set_value();
}

/// Lets the test act before a file is opened or the time is asked for ("now").
class CHookedDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  std::function<void(const std::string&)> m_Before = [](const std::string&) {};

  int Open(const std::string& path, int flags) override {
    m_Before(path);
    return CForwardingMachine::Open(path, flags);
  }
  std::uint64_t Now() override {
    m_Before("now");
    return CForwardingMachine::Now();
  }
};
using SHookedRig = SRigOf<CHookedDoor>;

/// Two free disks and a mirror of two others, 64 KiB chunks, in sync.
const std::string QUIET = DisksOf({1048576, 1048576, 1048576, 1048576}, MirrorOfTwo("md0"));

TEST(Worker, AnUnchangingMachineMovesNoDriveAndNoArrayAndKeepsBusyMarks) {
  SRig rig(QUIET);
  rig.Pass();  // the first one settles what the initial scan could not compare
  rig.m_Plugin.TakeEvents();
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  const auto counters = [&] {
    unsigned long sum = rig.m_Plugin.Array("md0").m_UpdateCounter;
    for (const auto& drive : rig.m_Plugin.m_PhysicalDrives) sum += drive.m_UpdateCounter;
    return sum;
  };
  const auto before = counters();
  const unsigned long adapter = rig.m_Plugin.m_Adapter.m_UpdateCounter;
  const unsigned long plugin = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  for (int pass = 0; pass < 3; ++pass) rig.Pass();
  EXPECT_THAT(rig.m_Plugin.TakeEvents(), IsEmpty());
  EXPECT_EQ(counters(), before);
  EXPECT_EQ(rig.m_Plugin.m_Adapter.m_UpdateCounter, adapter + 3);
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, plugin + 3);
  EXPECT_THAT(rig.m_Plugin.m_Plugin.m_Children, ElementsAre(rig.m_Plugin.m_Adapter.m_ID));
  EXPECT_THAT(rig.m_Plugin.m_Adapter.m_Parents, ElementsAre(rig.m_Plugin.m_Plugin.m_ID));
  EXPECT_TRUE(rig.m_Plugin.m_Adapter.m_Busy);

  rig.m_Machine.Apply(R"({"remove_disk": "sdd"})");
  rig.Pass();
  EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);  // an event that waits in the queue clears them too
  rig.Pass();
  EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);
}

TEST(Worker, WakeUpsLeadWhereTheyShould) {
  SRig rig(QUIET);
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  {
    const CTraceCapture trace(TRACE_LOCKS);
    EXPECT_TRUE(rig.m_Plugin.WorkerTurn(PRIVATE, rig.m_Worker));
    EXPECT_TRUE(trace.Shows("Src/piRVXPlugin", "After m_DataLock.Wait (sg)")) << "for the busy marks";
  }
  EXPECT_FALSE(rig.m_Plugin.m_Plugin.m_Busy || rig.m_Plugin.Drive("sdc").m_Busy);
  EXPECT_EQ(rig.m_Notifications.Count(), 1);
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes) << "a private event scans nothing";

  EXPECT_TRUE(rig.m_Plugin.WorkerTurn(FORCED, rig.m_Worker));
  EXPECT_TRUE(rig.m_Worker.m_Force);
  EXPECT_TRUE(rig.m_Plugin.WorkerTurn(KVT::Threading::WAIT_TIMED_OUT, rig.m_Worker));
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes + 2);
  EXPECT_FALSE(rig.m_Plugin.WorkerTurn(STOPPED, rig.m_Worker));
  EXPECT_EQ(rig.m_Notifications.Count(), 1);
}

TEST(Worker, LooksTenTimesLessOftenWithoutDisks) {
  SRig rig(QUIET);
  SRig empty("{}");
  for (const auto& [seconds, milliseconds] :
       {std::pair{10U, 10000U}, {0U, 1000U}, {0xFFFFFFFFU, 86400000U}}) {
    rig.m_Plugin.m_PollInterval = empty.m_Plugin.m_PollInterval = seconds;
    EXPECT_EQ(rig.m_Plugin.NextInterval(), milliseconds);
    EXPECT_EQ(empty.m_Plugin.NextInterval(), 10UL * milliseconds);
  }
}

TEST(Worker, ABusyLockSkipsThePassAndTheFetchAndLeavesNothingHeld) {
  SRig rig(QUIET);
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  rig.m_Plugin.m_EventQueue.resize(2);
  const auto fetched = [&] {
    PI::COperation fetch = Operation(PI::OP_GET_EVENTS);
    fetch.m_Events.resize(1);  // does not stay
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, rig.m_Plugin.m_Plugin.m_ID, &fetch), PI::OK);
    return fetch.m_Events.size();
  };
  WhileHeld(rig.m_Plugin.m_DataLock, [&] { rig.Pass(); });
  WhileHeld(rig.m_Plugin.m_EventsLock, [&] {
    rig.Pass();
    EXPECT_TRUE(CTestInstance::IsFree(rig.m_Plugin.m_DataLock));
    EXPECT_EQ(fetched(), 0U);
  });
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes);
  EXPECT_EQ(fetched(), 2U);
  EXPECT_EQ(fetched(), 0U);
}

TEST(Worker, AFailedScanLeavesTheModelAndCountsThePass) {
  SHookedRig rig(QUIET);
  rig.Pass();
  rig.m_Plugin.TakeEvents();
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  const unsigned long adapter = rig.m_Plugin.m_Adapter.m_UpdateCounter;
  rig.m_Own.m_Before = [](const std::string& call) {
    if (call == "/proc/partitions") throw std::bad_alloc();
  };
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 4U);
  EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), 1U);
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes + 1);
  EXPECT_EQ(rig.m_Plugin.m_Adapter.m_UpdateCounter, adapter);
  EXPECT_THAT(rig.m_Plugin.m_Plugin.m_Children, ElementsAre(rig.m_Plugin.m_Adapter.m_ID));
  EXPECT_TRUE(rig.m_Plugin.m_Adapter.m_Busy);
}

TEST(Worker, AStopIsSeenBetweenTwoDisks) {
  SHookedRig rig(QUIET);
  const std::uint64_t asked = rig.m_Machine.CommandCount("udevadm");
  rig.m_Own.m_Before = [&](const std::string& call) {
    if (call == "/dev/sda") rig.m_Plugin.m_StopRequest.Set();
  };
  rig.Pass();
  EXPECT_EQ(rig.m_Machine.CommandCount("udevadm"), asked + 1);
}

TEST(Worker, ATurnThatFailsIsLostAndTheNextOneComes) {
  SHookedRig rig(QUIET);  // at its end nothing may be held
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  bool failed = false;
  rig.m_Own.m_Before = [&](const std::string& call) {
    if (call != "now") return;
    (failed ? rig.m_Plugin.m_StopRequest : rig.m_Plugin.m_ForceWorker).Set();
    if (!std::exchange(failed, true)) throw std::runtime_error("no clock");
  };
  rig.m_Plugin.m_ForceWorker.Set();
  const CTraceCapture trace(0);
  rig.m_Plugin.Worker();
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes + 2);
  EXPECT_TRUE(Take(rig.m_Plugin.m_StopRequest)) << "the other thread's too";
  EXPECT_TRUE(trace.Shows("Src/piRVXPlugin", "Worker() turn failed: no clock"));
}

TEST(Worker, DeletedArraysAreNamedByTheNextPass) {
  SRig rig(QUIET);
  std::vector<PI::CEvent> events(3);  // of md0, which is there, of one that is not, and of another kind
  events[0].m_Code = events[1].m_Code = PI::EVT_LOGICALDRIVE_DELETED;
  events[1].m_ObjectID = 42;
  rig.m_Plugin.m_EventQueue.assign(events.begin(), events.end());
  rig.Pass();
  std::vector<unsigned long> named;
  for (const PI::CEvent& event : rig.m_Plugin.TakeEvents()) named.push_back(event.m_ObjectID);
  EXPECT_THAT(named, ElementsAre(rig.m_Plugin.Array("md0").m_ID, 42, 0));
}

TEST(Worker, ProgressMovesOnWhileAPassRunsAndDocumentsOutliveAFailedQuery) {
  // What a pass reads behind its scan, which read "recovery = 12.6%", and what that changes.
  const std::tuple<const char*, std::uint32_t, bool, bool> cases[] = {
      {"[===>.................]  recovery = 13.0% (1/2)", 13, true, true},
      {"[==>..................]  recovery = 12.9% (1/2)", 12, false, true},
      {"[====================>]  resync =100.0% (2/2)", 0, true, true},
      {"\tresync=DELAYED", 12, false, false}};
  for (const auto& [bar, progress, changed, watched] : cases) {
    SCOPED_TRACE(bar);
    SHookedRig rig(QUIET);
    const char* const before = "[==>..................]  recovery = 12.6% (1/2)";
    const char* again = before;
    int readings = 0;
    rig.m_Own.m_Before = [&](const std::string& path) {
      if (path == "/proc/mdstat")
        rig.m_Machine.SetFile(path, Text("md0 : active raid1 sdb[1] sda[0]\n  1 blocks super 1.0\n  %s\n\n",
                                         ++readings % 2 == 1 ? before : again));
    };
    rig.Pass();
    rig.m_Plugin.TakeEvents();
    rig.m_Plugin.LockObjects(-1, -1, -1, -1);
    const unsigned long counter = rig.m_Plugin.Array("md0").m_UpdateCounter;
    again = bar;
    rig.Pass();
    EXPECT_EQ(readings, 4);
    EXPECT_EQ(rig.m_Plugin.Array("md0").m_Progress, progress);
    EXPECT_EQ(rig.m_Plugin.Array("md0").m_UpdateCounter - counter, changed ? 1U : 0U);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Busy, !changed);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_ProgressWatch, watched);

    const std::string document = rig.m_Plugin.Array("md0").m_Configuration.GetDoc();
    rig.m_Machine.SetFile("/dev/md0", std::nullopt);
    rig.Pass();
    EXPECT_EQ(rig.m_Plugin.Array("md0").m_Configuration.GetDoc(), document);
  }
}

TEST(Worker, WornSolidStateDisksAreReportedByTheAdapter) {
  const unsigned int WEAR = PI::EVT_SMART_WEAR_HIGH;
  const unsigned int RESERVE = PI::EVT_SMART_RESERVE_LOW;
  const unsigned int LIFETIME = PI::EVT_SMART_LIFETIME_LOW;
  // The drive's attributes 233, life left, 232, reserve, both in percent, and 9, hours powered on.
  const std::tuple<int, int, int, const char*, std::vector<unsigned int>> cases[] = {
      {4, 50, 200000, "solid-state", {WEAR}},
      {5, 10, 200000, "solid-state", {}},
      {100, 9, 200000, "solid-state", {RESERVE}},
      {50, 50, 1439, "solid-state", {LIFETIME}},
      {50, 50, 1440, "solid-state", {}},
      {2, 1, 168, "solid-state", {WEAR, RESERVE, LIFETIME}},
      {2, 1, 168, "rotating", {}}};
  for (const auto& [left, reserve, hours, medium, warnings] : cases) {
    SCOPED_TRACE(testing::Message() << left << " " << reserve << " " << hours);
    gSmartData.clear();
    SRig rig(Text(R"({"controllers": [{"name": "a", "pci": "0000:00:1f.2", "driver": "ahci"}],
        "disks": [{"name": "sda", "size": 65536, "controller": "a", "model": "INTEL SSDSC2BB480G4",
          "medium": "%s", "smart": {"attributes": [{"id": 233, "value": %d}, {"id": 232, "value": %d},
          {"id": 9, "value": 100, "raw": %d}]}}]})",
                  medium, left, reserve, hours));
    rig.Pass();
    std::vector<unsigned int> codes;
    for (const PI::CEvent& event : rig.m_Plugin.TakeEvents()) {
      codes.push_back(event.m_Code);
      EXPECT_EQ(event.m_Severity, PI::SEV_WARNING);
      EXPECT_EQ(event.m_ObjectID, rig.m_Plugin.m_Adapter.m_ID);
      EXPECT_EQ(event.m_PlaceHolder1 + ", " + event.m_PlaceHolder2, "Linux Multiple Devices (0), sda 8:0");
    }
    EXPECT_EQ(codes, warnings);
    rig.Pass();
    EXPECT_THAT(rig.m_Plugin.TakeEvents(), IsEmpty()) << "checked again in the same hour";
  }
}

TEST(Worker, TheSmartCheckIsDueAtTwoChangesOfTheHour) {
  const std::tuple<int, int, bool> cases[] = {
      {22, 23, true}, {10, 11, true}, {22, 22, false}, {23, 0, false}, {9, 11, false}};
  for (const auto& [lastHour, hour, due] : cases) {
    SCOPED_TRACE(testing::Message() << lastHour << " -> " << hour);
    SRig rig(QUIET);
    const int ahead = hour - KVTX::CSystemTime_Lx::GetDate(rig.m_Machine.Now()).m_Hour;
    rig.m_Machine.Advance(static_cast<std::uint64_t>(ahead + 24) * 3600000);
    const std::uint64_t now = rig.m_Machine.Now();
    const std::uint64_t last = now - static_cast<std::uint64_t>((hour - lastHour + 24) % 24) * 3600000;
    rig.m_Worker.m_LastSmartCheck = last;
    rig.Pass();
    EXPECT_EQ(rig.m_Worker.m_LastSmartCheck, due ? now : last);
    rig.m_Worker.m_LastSmartCheck = 0;
    rig.Pass();
    EXPECT_EQ(rig.m_Worker.m_LastSmartCheck, now) << "the first pass checks at any hour";
  }
}

}  // namespace
