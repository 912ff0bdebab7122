// The worker's turns and passes, on a machine whose clock the tests step by hand.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "Src/piRVXTrace.h"
#include "tests/support/Arrays.h"
#include "tests/support/NoMemory.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// The same machine at another time, which stands still.
class CFixedClock : public CForwardingMachine {
 public:
  CFixedClock(COperatingSystem& machine, std::uint64_t now) : CForwardingMachine(machine), m_Now(now) {}
  std::uint64_t Now() override { return m_Now; }
  void Sleep(std::uint64_t milliseconds) override { m_Now += milliseconds; }

  std::uint64_t m_Now;
};

constexpr unsigned int FORCED = 1;
constexpr unsigned int STOPPED = 2;
constexpr unsigned int PRIVATE = 3;

/// Holds a lock on a thread of its own.
class CHolder {
 public:
  explicit CHolder(KVT::Threading::Native_OS::CFastMutex& lock) {
    m_Held.Init(false, true);
    m_Done.Init(false, true);
    m_Thread = std::thread([this, &lock] {
      lock.Wait();
      m_Held.Set();
      m_Done.Wait(KVT::Threading::INFINITE_WAIT);
      lock.Release();
    });
    m_Held.Wait(KVT::Threading::INFINITE_WAIT);
  }
  ~CHolder() {
    m_Done.Set();
    m_Thread.join();
  }

 private:
  KVT::Threading::CEvent m_Held;
  KVT::Threading::CEvent m_Done;
  std::thread m_Thread;
};

/// Two free disks and a mirror of two others, 64 KiB chunks, in sync.
const std::string QUIET = DisksOf({1048576, 1048576, 1048576, 1048576}, MirrorOfTwo("md0"));

TEST(Worker, AnUnchangingMachineMovesNoDriveAndNoArray) {
  SRig rig(QUIET);
  rig.Pass();  // the first one settles what the initial scan could not compare
  rig.m_Plugin.TakeEvents();
  const auto drives = rig.m_Plugin.m_PhysicalDrives;
  const unsigned long array = rig.m_Plugin.Array("md0").m_UpdateCounter;
  const unsigned long adapter = rig.m_Plugin.m_Adapter.m_UpdateCounter;
  const unsigned long plugin = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  for (int pass = 0; pass < 3; ++pass) rig.Pass();
  EXPECT_THAT(rig.m_Plugin.TakeEvents(), IsEmpty());
  for (std::size_t at = 0; at < drives.size(); ++at)
    EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives[at].m_UpdateCounter, drives[at].m_UpdateCounter);
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_UpdateCounter, array);
  EXPECT_EQ(rig.m_Plugin.m_Adapter.m_UpdateCounter, adapter + 3);
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, plugin + 3);
  EXPECT_THAT(rig.m_Plugin.m_Plugin.m_Children, ElementsAre(rig.m_Plugin.m_Adapter.m_ID));
  EXPECT_THAT(rig.m_Plugin.m_Adapter.m_Parents, ElementsAre(rig.m_Plugin.m_Plugin.m_ID));
}

TEST(Worker, WakeUpsLeadWhereTheyShould) {
  SRig rig(QUIET);
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  EXPECT_TRUE(rig.m_Plugin.WorkerTurn(PRIVATE, rig.m_Worker));
  EXPECT_FALSE(rig.m_Plugin.m_Plugin.m_Busy);
  EXPECT_FALSE(rig.m_Plugin.Drive("sdc").m_Busy);
  EXPECT_EQ(rig.m_Notifications.Count(), 1);
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes) << "a private event scans nothing";

  EXPECT_TRUE(rig.m_Plugin.WorkerTurn(FORCED, rig.m_Worker));
  EXPECT_TRUE(rig.m_Worker.m_Force);
  EXPECT_TRUE(rig.m_Plugin.WorkerTurn(KVT::Threading::WAIT_TIMED_OUT, rig.m_Worker));
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes + 2);
  EXPECT_FALSE(rig.m_Plugin.WorkerTurn(STOPPED, rig.m_Worker));
  EXPECT_EQ(rig.m_Notifications.Count(), 1);
}

TEST(Worker, ABusyLockSkipsThePassAndLeavesNothingHeld) {
  SRig rig(QUIET);
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  for (auto* lock : {&rig.m_Plugin.m_DataLock, &rig.m_Plugin.m_EventsLock}) {
    {
      const CHolder holder(*lock);
      rig.Pass();
    }
    EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes);
    EXPECT_TRUE(CTestInstance::IsFree(rig.m_Plugin.m_DataLock));
    EXPECT_TRUE(CTestInstance::IsFree(rig.m_Plugin.m_EventsLock));
  }
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes + 1);
}

TEST(Worker, EventsAreNotFetchedWhileAPassHoldsThem) {
  SRig rig(QUIET);
  rig.m_Plugin.m_EventQueue.resize(2);
  const auto fetched = [&] {
    PI::COperation fetch = Operation(PI::OP_GET_EVENTS);
    fetch.m_Events.resize(1);  // does not stay
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, rig.m_Plugin.m_Plugin.m_ID, &fetch), PI::OK);
    return fetch.m_Events.size();
  };
  {
    const CHolder holder(rig.m_Plugin.m_EventsLock);
    EXPECT_EQ(fetched(), 0U);
  }
  EXPECT_EQ(fetched(), 2U);
  EXPECT_EQ(fetched(), 0U);
}

TEST(Worker, BusyMarksOutliveOnlyAPassThatFoundNothing) {
  SRig rig(QUIET);
  rig.Pass();
  rig.m_Plugin.TakeEvents();
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  rig.Pass();
  EXPECT_TRUE(rig.m_Plugin.m_Adapter.m_Busy);
  rig.m_Machine.Apply(R"({"remove_disk": "sdd"})");
  rig.Pass();
  EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);

  rig.m_Plugin.LockObjects(-1, -1, -1, -1);  // an event that waits in the queue clears them too
  rig.Pass();
  EXPECT_FALSE(rig.m_Plugin.m_Adapter.m_Busy);
}

TEST(Worker, AFailedScanLeavesTheModelAndCountsThePass) {
  SRigOf<CStarvedDoor> rig(QUIET);
  rig.Pass();
  rig.m_Plugin.TakeEvents();
  rig.m_Plugin.LockObjects(-1, -1, -1, -1);
  const unsigned long passes = rig.m_Plugin.m_Plugin.m_UpdateCounter;
  const unsigned long adapter = rig.m_Plugin.m_Adapter.m_UpdateCounter;
  rig.m_Own.m_Left = 0;
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 4U);
  EXPECT_EQ(rig.m_Plugin.m_LogicalDrives.size(), 1U);
  EXPECT_EQ(rig.m_Plugin.m_Plugin.m_UpdateCounter, passes + 1);
  EXPECT_EQ(rig.m_Plugin.m_Adapter.m_UpdateCounter, adapter);
  EXPECT_THAT(rig.m_Plugin.m_Plugin.m_Children, ElementsAre(rig.m_Plugin.m_Adapter.m_ID));
  EXPECT_TRUE(rig.m_Plugin.m_Adapter.m_Busy);
}

/// Has no time to give.
class CBrokenClock : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  bool m_Broken{false};
  std::uint64_t Now() override {
    if (m_Broken) throw std::runtime_error("no clock");
    return CForwardingMachine::Now();
  }
};

TEST(Worker, ATurnThatFailsIsLostAndTheNextOneComes) {
  SRigOf<CBrokenClock> rig(QUIET);  // at its end nothing may be held
  rig.m_Own.m_Broken = true;
  rig.m_Plugin.m_ForceWorker.Set();
  rig.m_Plugin.m_StopRequest.Set();
  rig.m_Plugin.Worker();  // the turn of the one, the end of the other
  EXPECT_FALSE(Take(rig.m_Plugin.m_ForceWorker));
  EXPECT_THROW(rig.m_Plugin.Topology(), std::runtime_error);
}

TEST(Worker, DeletedArraysAreNamedByTheNextPass) {
  SRig rig(QUIET);
  std::vector<PI::CEvent> events(3);  // of md0, which is there, of one that is not, and of another kind
  events[0].m_Code = events[1].m_Code = PI::EVT_LOGICALDRIVE_DELETED;
  events[1].m_ObjectID = 42;
  rig.m_Plugin.m_EventQueue.assign(events.begin(), events.end());
  rig.Pass();
  events = rig.m_Plugin.TakeEvents();
  ASSERT_GE(events.size(), 3U);
  EXPECT_EQ(events[0].m_ObjectID, rig.m_Plugin.Array("md0").m_ID);
  EXPECT_EQ(events[1].m_ObjectID, 42U);
  EXPECT_EQ(events[2].m_ObjectID, 0U);
}

TEST(Worker, ProgressIsFollowedUntilItEndsAndDocumentsOutliveAFailedQuery) {
  SRig rig(QUIET);
  const struct {
    const char* m_Bar;
    std::uint32_t m_Progress;
    bool m_Watched;
  } steps[] = {{"[==>..................]  recovery = 12.6% (1/2) finish=1.0min speed=1K/sec", 12, true},
               {"[===>.................]  resync = 15.0% (1/2) finish=1.0min speed=1K/sec", 15, true},
               {"[====================>]  resync =100.0% (2/2) finish=0.0min speed=1K/sec", 0, true},
               {"\tresync=DELAYED", 0, false}};
  for (const auto& step : steps) {
    SCOPED_TRACE(step.m_Bar);
    rig.m_Machine.SetFile(
        "/proc/mdstat",
        Text("Personalities : [raid1] \nmd0 : active raid1 sdb[1] sda[0]\n      1048448 blocks "
             "super 1.0 [2/2] [UU]\n      %s\n      \nunused devices: <none>\n",
             step.m_Bar));
    rig.Pass();
    EXPECT_EQ(rig.m_Plugin.Array("md0").m_Progress, step.m_Progress);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_ProgressWatch, step.m_Watched);
  }
  const std::string document = rig.m_Plugin.Array("md0").m_Configuration.GetDoc();
  EXPECT_NE(document.find(std::to_string(rig.m_Plugin.Drive("sda").m_ID)), std::string::npos);
  rig.m_Machine.SetFile("/dev/md0", std::nullopt);
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.Array("md0").m_Configuration.GetDoc(), document);
}

TEST(Worker, WornSolidStateDisksAreReportedByTheAdapter) {
  const struct {
    int m_LifeLeft;  ///< percent, the drive's attribute 233
    int m_Reserve;   ///< percent, 232
    int m_Hours;     ///< powered on, 9
    std::vector<unsigned int> m_Events;
  } cases[] = {
      {4, 50, 200000, {PI::EVT_SMART_WEAR_HIGH}},
      {5, 10, 200000, {}},
      {100, 9, 200000, {PI::EVT_SMART_RESERVE_LOW}},
      {50, 50, 1439, {PI::EVT_SMART_LIFETIME_LOW}},
      {50, 50, 1440, {}},
      {2, 1, 168, {PI::EVT_SMART_WEAR_HIGH, PI::EVT_SMART_RESERVE_LOW, PI::EVT_SMART_LIFETIME_LOW}},
  };
  for (const auto& entry : cases) {
    SCOPED_TRACE(testing::Message() << entry.m_LifeLeft << " " << entry.m_Reserve << " " << entry.m_Hours);
    gSmartData.clear();
    for (const auto& [medium, reported] : {std::pair{"solid-state", true}, std::pair{"rotating", false}}) {
      SRig rig(Text(
          R"({"controllers": [{"name": "a", "pci": "0000:00:1f.2", "vendor": "0x8086", "driver": "ahci"}],
          "disks": [{"name": "sda", "size": 65536, "controller": "a", "model": "INTEL SSDSC2BB480G4",
            "medium": "%s", "smart": {"attributes": [{"id": 233, "value": %d}, {"id": 232, "value": %d},
            {"id": 9, "value": 100, "raw": %d}]}}]})",
          medium, entry.m_LifeLeft, entry.m_Reserve, entry.m_Hours));
      rig.Pass();
      std::vector<unsigned int> codes;
      for (const PI::CEvent& event : rig.m_Plugin.TakeEvents()) {
        codes.push_back(event.m_Code);
        EXPECT_EQ(event.m_Severity, PI::SEV_WARNING);
        EXPECT_EQ(event.m_ObjectID, rig.m_Plugin.m_Adapter.m_ID);
        EXPECT_EQ(event.m_PlaceHolder2, "sda 8:0");
      }
      EXPECT_EQ(codes, reported ? entry.m_Events : std::vector<unsigned int>{});
      rig.Pass();
      EXPECT_THAT(rig.m_Plugin.TakeEvents(), IsEmpty()) << "checked again in the same hour";
    }
  }
}

TEST(Worker, TheSmartCheckIsDueAtTwoChangesOfTheHour) {
  const auto at = [](int hour, int minute) {
    const std::uint64_t time = 1700000000000;  // some day; its local hour tells how far the wanted one is
    const auto date = KVTX::CSystemTime_Lx::GetDate(time);
    const int minutes = (hour - date.m_Hour) * 60 + minute - date.m_Minute;
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(time) + std::int64_t{60000} * minutes);
  };
  const struct {
    int m_LastHour;
    int m_NowHour;
    bool m_Due;
  } cases[] = {{22, 23, true}, {10, 11, true}, {22, 22, false}, {23, 0, false}, {9, 11, false}};
  for (const auto& entry : cases) {
    SCOPED_TRACE(testing::Message() << entry.m_LastHour << " -> " << entry.m_NowHour);
    const std::uint64_t now = at(entry.m_NowHour, 10);
    const std::uint64_t last = at(entry.m_LastHour, 50);
    SBareRig bench(QUIET);
    CFixedClock clock(bench.m_Machine, now);
    CTestInstance plugin(clock);
    ASSERT_EQ(plugin.Begin(), PI::OK);
    SWorkerState state;
    state.m_LastSmartCheck = last;
    plugin.WorkerPass(state);
    EXPECT_EQ(state.m_LastSmartCheck, entry.m_Due ? now : last);
    SWorkerState first;
    plugin.WorkerPass(first);
    EXPECT_EQ(first.m_LastSmartCheck, now) << "the first pass checks at any hour";
  }
}

}  // namespace
