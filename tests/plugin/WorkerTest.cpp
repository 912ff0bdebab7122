// The worker's turns and passes, on a machine whose clock the tests step by hand.

#include <future>

#include "Src/piRVXPhysicalDriveSmart.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned int FORCED = 1;
constexpr unsigned int STOPPED = 2;
constexpr unsigned int PRIVATE = 3;

void WhileHeld(KVT::Threading::Native_OS::CFastMutex& lock, const std::function<void()>& act) {
  lock.Wait();
  std::async(std::launch::async, act).get();
  lock.Release();
}

/// Two free disks and a mirror of two others, 64 KiB chunks, in sync.
const std::string QUIET = DisksOf({1048576, 1048576, 1048576, 1048576}, MirrorOfTwo("md0"));

/// At its end nothing may be held.
struct Worker : public testing::Test, public SRigOf<CHookedSystem> {
  Worker() : SRigOf(QUIET) {}
};

TEST_F(Worker, AnUnchangingMachineAndAFailedScanLeaveTheModelAndBusyMarks) {
  bool starved = false;
  m_Own.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
    if (starved && call == "open /proc/partitions") throw std::bad_alloc();
    return {};
  };
  Pass();  // the first one settles what the initial scan could not compare
  m_Plugin.TakeEvents();
  m_Plugin.LockObjects(-1, -1, -1, -1);
  const auto counters = [&] {
    std::string text = Text("array %d, drives", m_Plugin.Array("md0").m_UpdateCounter);
    for (const auto& drive : m_Plugin.m_PhysicalDrives) text += Text(" %d", drive.m_UpdateCounter);
    return text;
  };
  const std::string before = counters();
  const unsigned long adapter = m_Plugin.m_Adapter.m_UpdateCounter;
  const unsigned long passes = m_Plugin.m_Plugin.m_UpdateCounter;
  for (const bool fails : {false, false, true}) {
    starved = fails;
    Pass();
    EXPECT_THAT(m_Plugin.TakeEvents(), IsEmpty());
    EXPECT_EQ(counters(), before);
    EXPECT_THAT(m_Plugin.m_Plugin.m_Children, ElementsAre(m_Plugin.m_Adapter.m_ID));
    EXPECT_THAT(m_Plugin.m_Adapter.m_Parents, ElementsAre(m_Plugin.m_Plugin.m_ID));
    EXPECT_TRUE(m_Plugin.m_Adapter.m_Busy);
  }
  EXPECT_EQ(m_Plugin.m_Adapter.m_UpdateCounter, adapter + 2);
  EXPECT_EQ(m_Plugin.m_Plugin.m_UpdateCounter, passes + 3);

  starved = false;
  m_Machine.Apply(R"({"remove_disk": "sdd"})");
  for (int pass = 0; pass < 2; ++pass) {  // an event that waits in the queue clears them too
    m_Plugin.LockObjects(-1, -1, -1, -1);
    Pass();
    EXPECT_FALSE(m_Plugin.m_Adapter.m_Busy);
  }
}

TEST_F(Worker, WakeUpsLeadWhereTheyShould) {
  m_Plugin.LockObjects(-1, -1, -1, -1);
  const unsigned long passes = m_Plugin.m_Plugin.m_UpdateCounter;
  const CTraceCapture trace(TRACE_LOCKS);
  EXPECT_TRUE(m_Plugin.WorkerTurn(PRIVATE, m_Worker));
  EXPECT_TRUE(trace.Shows("Src/piRVXPlugin", "After m_DataLock.Wait (sg)")) << "for the busy marks";
  EXPECT_FALSE(m_Plugin.m_Plugin.m_Busy || m_Plugin.Drive("sdc").m_Busy);
  EXPECT_EQ(m_Notifications.Count(), 1);
  EXPECT_EQ(m_Plugin.m_Plugin.m_UpdateCounter, passes) << "a private event scans nothing";

  EXPECT_TRUE(m_Plugin.WorkerTurn(FORCED, m_Worker));
  EXPECT_TRUE(m_Worker.m_Force);
  EXPECT_TRUE(m_Plugin.WorkerTurn(KVT::Threading::WAIT_TIMED_OUT, m_Worker));
  EXPECT_EQ(m_Plugin.m_Plugin.m_UpdateCounter, passes + 2);
  EXPECT_FALSE(m_Plugin.WorkerTurn(STOPPED, m_Worker));
  EXPECT_EQ(m_Notifications.Count(), 1);
}

TEST_F(Worker, LooksTenTimesLessOftenWithoutDisks) {
  SRig empty("{}");
  for (const auto& [seconds, milliseconds] :
       {std::pair{10U, 10000U}, {0U, 1000U}, {0xFFFFFFFFU, 86400000U}}) {
    m_Plugin.m_PollInterval = empty.m_Plugin.m_PollInterval = seconds;
    EXPECT_EQ(m_Plugin.NextInterval(), milliseconds);
    EXPECT_EQ(empty.m_Plugin.NextInterval(), 10UL * milliseconds);
  }
}

TEST_F(Worker, ABusyLockSkipsThePassAndTheFetchAndLeavesNothingHeld) {
  const unsigned long passes = m_Plugin.m_Plugin.m_UpdateCounter;
  m_Plugin.m_EventQueue.resize(2);
  WhileHeld(m_Plugin.m_DataLock, [&] { Pass(); });
  WhileHeld(m_Plugin.m_EventsLock, [&] {
    Pass();
    EXPECT_TRUE(CTestInstance::IsFree(m_Plugin.m_DataLock));
    EXPECT_EQ(m_Plugin.FetchEvents().size(), 0U);
  });
  EXPECT_EQ(m_Plugin.m_Plugin.m_UpdateCounter, passes);
  EXPECT_EQ(m_Plugin.FetchEvents().size(), 2U);
  EXPECT_EQ(m_Plugin.FetchEvents().size(), 0U);
}

TEST_F(Worker, AStopIsSeenBetweenTwoDisks) {
  int asked = 0;
  m_Own.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
    if (call == "run udevadm" && ++asked == 1) m_Plugin.m_StopRequest.Set();
    return {};
  };
  Pass();
  EXPECT_EQ(asked, 1);
  EXPECT_THAT(m_Plugin.m_Plugin.m_Children, ElementsAre(m_Plugin.m_Adapter.m_ID)) << "still linked";
  EXPECT_EQ(m_Plugin.m_Adapter.m_Children.size(), 5U);
}

TEST_F(Worker, ATurnThatFailsIsLostAndTheNextOneComes) {
  const unsigned long passes = m_Plugin.m_Plugin.m_UpdateCounter;
  bool failed = false;
  m_Own.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
    if (call != "now") return {};
    (failed ? m_Plugin.m_StopRequest : m_Plugin.m_ForceWorker).Set();
    if (!std::exchange(failed, true)) throw std::runtime_error("no clock");
    return {};
  };
  m_Plugin.m_ForceWorker.Set();
  const CTraceCapture trace(0);
  m_Plugin.Worker();
  EXPECT_EQ(m_Plugin.m_Plugin.m_UpdateCounter, passes + 2);
  EXPECT_TRUE(Take(m_Plugin.m_StopRequest)) << "the other thread's too";
  EXPECT_TRUE(trace.Shows("Src/piRVXPlugin", "Worker() turn failed: no clock"));
}

TEST_F(Worker, DeletedArraysAreNamedByTheNextPass) {
  std::vector<PI::CEvent> events(2);  // of md0, which is there, and of one that is not
  events[0].m_Code = events[1].m_Code = PI::EVT_LOGICALDRIVE_DELETED;
  events[1].m_ObjectID = 42;
  m_Plugin.m_EventQueue.assign(events.begin(), events.end());
  Pass();
  EXPECT_THAT(m_Plugin.TakeObjects(PI::EVT_LOGICALDRIVE_DELETED),
              ElementsAre(m_Plugin.Array("md0").m_ID, 42));
}

TEST_F(Worker, ProgressMovesOnWhileAPassRunsAndDocumentsOutliveAFailedQuery) {
  // What a pass reads behind its scan, which read "recovery = 12.6%", and what that changes.
  const std::tuple<const char*, std::uint32_t, bool, bool> cases[] = {
      {"[===>.................]  recovery = 13.0% (1/2)", 13, true, true},
      {"[==>..................]  recovery = 12.9% (1/2)", 12, false, true},
      {"[====================>]  resync =100.0% (2/2)", 0, true, true},
      {"\tresync=DELAYED", 12, false, false}};
  for (const auto& [bar, progress, changed, watched] : cases) {
    SCOPED_TRACE(bar);
    SRigOf<CHookedSystem> rig(QUIET);
    const char* const before = "[==>..................]  recovery = 12.6% (1/2)";
    const char* again = before;
    int readings = 0;
    rig.m_Own.m_Hook = [&](const std::string& call) -> CHookedSystem::TAnswer {
      if (call == "open /proc/mdstat")
        rig.m_Machine.SetFile("/proc/mdstat",
                              Text("md0 : active raid1 sdb[1] sda[0]\n  1 blocks super 1.0\n  %s\n\n",
                                   ++readings % 2 == 1 ? before : again));
      return {};
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

TEST_F(Worker, WornSolidStateDisksAreReportedByTheAdapter) {
  constexpr unsigned int WEAR = PI::EVT_SMART_WEAR_HIGH, RESERVE = PI::EVT_SMART_RESERVE_LOW;
  constexpr unsigned int LIFETIME = PI::EVT_SMART_LIFETIME_LOW;
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
    std::string events;
    for (const unsigned int code : warnings) events += Text("%d/3 Linux Multiple Devices (0),sda 8:0 ", code);
    EXPECT_EQ(rig.m_Plugin.TakeEventText(rig.m_Plugin.m_Adapter.m_ID), events);
  }
}

TEST_F(Worker, TheSmartCheckIsDueAtTwoChangesOfTheHour) {
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
