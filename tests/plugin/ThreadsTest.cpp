// The poller's rounds, both threads on a live machine, and framework threads beside them.

#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using namespace std::chrono_literals;

namespace {

const std::string MACHINE = DisksOf({65536, 65536, 65536, 65536}, MirrorOfTwo("md0"));

/// What the poller does with its file, and select as it is told.
struct EventPollTest : public testing::Test, public SRigOf<CHookedDoor> {
  EventPollTest() : SRigOf(MACHINE) {
    m_Own.m_Hook = [this](const std::string& call) -> CHookedDoor::TAnswer {
      m_Steps += call == "close" && Take(m_Plugin.m_ForceWorker) ? "close too late, " : call + ", ";
      errno = EBADF;  // what a close may leave behind
      if (!call.starts_with("wait")) return {};
      errno = EINTR;
      return m_Select();
    };
  }
  std::function<int()> m_Select = [] { return 0; };
  std::string m_Steps;
};
constexpr char ROUND[] = "open /proc/mdstat, wait 3000, close, ";

TEST_F(EventPollTest, AChangeWakesTheWorkerAfterTheFileIsClosed) {
  EXPECT_TRUE(m_Plugin.EventPollRound());
  EXPECT_FALSE(Take(m_Plugin.m_ForceWorker));
  m_Select = [] { return 1; };
  EXPECT_TRUE(m_Plugin.EventPollRound());
  EXPECT_TRUE(Take(m_Plugin.m_ForceWorker));
  m_Plugin.m_StopRequest.Set();
  EXPECT_FALSE(m_Plugin.EventPollRound());
  EXPECT_EQ(m_Steps, std::string(ROUND) + ROUND) << "a stop request ends it before anything is opened";
}

TEST_F(EventPollTest, AFailingSelectNamesItsOwnErrorAndEndsTheThreadAlone) {
  m_Select = [] { return -1; };
  const CTraceCapture trace(0);
  m_Plugin.EventPoll();
  EXPECT_THAT(trace.Text(), testing::HasSubstr("EventPoll()- Thread is crashed!\n\nselect: Interrupted"));
  EXPECT_EQ(m_Steps, ROUND) << "closed once";
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
  EXPECT_EQ(m_Steps, Text("%ssleep 3000, %s", ROUND, ROUND));
  EXPECT_EQ(log.Count("EventPoll() round failed: std::bad_alloc"), 1U);
  m_Plugin.m_StopRequest.Reset();
  m_Steps.clear();
  m_Machine.SetFile("/proc/mdstat", std::nullopt);
  EXPECT_TRUE(m_Plugin.EventPollRound());
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
  const auto await = [&](unsigned int code) {
    return Eventually([&] {
      const auto events = rig.FetchEvents();
      return std::ranges::count(events, code, &PI::CEvent::m_Code) != 0;
    });
  };
  const auto begin = std::chrono::steady_clock::now();
  rig.m_Machine.Apply(R"({"fail_member": {"array": "md0", "disk": "sdb"}})");
  EXPECT_TRUE(await(PI::EVT_LOGICALDRIVE_DEGRADED));
  rig.m_Machine.Apply(R"({"stop_array": "md0"})");
  EXPECT_TRUE(await(PI::EVT_LOGICALDRIVE_DELETED));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s) << "only the ten-second interval brought them";

  PI::CProperty interval(PI::PROP_POLL_INTERVAL);
  interval.SetValue(30, 2, 255, 1);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, SLiveRig::PLUGIN_ID, &interval), PI::OK);
  EXPECT_TRUE(Eventually([&] { return rig.m_Notifications.Count() == 1; }));
}

/// Changes of the machine and what must be reported of each, in this order and once. They end where they
/// began, so that they can be gone through again and again.
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
  // All codes that any front end fetched so far, without those that come with every pass: the rescans that
  // the test asks for, and a failed member that md still holds.
  const auto fetched = [&] {
    const std::lock_guard guard(lock);  // over the fetch: two must not be logged the wrong way round
    for (const PI::CEvent& event : rig.FetchEvents())
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
      Execute(rig.m_Plugin, SLiveRig::PLUGIN_ID + 1, Operation(PI::OP_RESCAN_ADAPTER));
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

}  // namespace
