// The poller, and both threads together.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "KVT/Exception.h"
#include "simulator/ForwardingMachine.h"
#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using namespace std::chrono_literals;

namespace {

constexpr char MIRROR[] = R"({
  "controllers": [{"name": "ahci0", "pci": "0000:00:1f.2", "vendor": "0x8086", "driver": "ahci"}],
  "disks": [
    {"name": "sda", "size": 1048576, "controller": "ahci0"},
    {"name": "sdb", "size": 1048576, "controller": "ahci0"},
    {"name": "sdc", "size": 1048576, "controller": "ahci0"}
  ],
  "arrays": [{"name": "md0", "level": "raid1", "members": ["sda", "sdb"]}]
})";

/// Waits for a condition for at most 20 s.
template <class TCondition>
bool Eventually(TCondition condition) {
  for (const auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(2ms);
  }
  return condition();
}

/// Watches what the poller does with its file and answers select as it is told.
class CWatchedDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  int m_Answer{0};
  int m_Error{0};
  std::uint64_t m_Slept{0};
  std::vector<std::string> m_Steps;

  int Open(const std::string& path, int flags) override {
    m_Steps.push_back("open");
    return CForwardingMachine::Open(path, flags);
  }
  int Close(int descriptor) override {
    m_Steps.push_back("close");
    const int result = CForwardingMachine::Close(descriptor);
    errno = EBADF;  // what a close may leave behind
    return result;
  }
  int WaitExceptional(int, std::uint64_t milliseconds) override {
    m_Steps.push_back("select " + std::to_string(milliseconds));
    errno = m_Error;
    return m_Answer;
  }
  void Sleep(std::uint64_t milliseconds) override { m_Slept += milliseconds; }
};

class EventPollTest : public testing::Test {
 protected:
  CConfigFolder m_Config;
  CSimulatedMachine m_Machine{MIRROR};
  CWatchedDoor m_Door{m_Machine};
  CTestInstance m_Plugin{m_Door};

  EventPollTest() {
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
    m_Door.m_Steps.clear();
  }
  bool IsWorkerForced() { return m_Plugin.m_ForceWorker.Wait(0) == KVT::Threading::WAIT_OK; }
};

TEST_F(EventPollTest, AChangeWakesTheWorkerAfterTheFileIsClosed) {
  for (const auto& [answer, forced] : {std::pair{0, false}, std::pair{1, true}}) {
    m_Door.m_Answer = answer;
    m_Door.m_Steps.clear();
    EXPECT_TRUE(m_Plugin.EventPollRound());
    EXPECT_THAT(m_Door.m_Steps, ElementsAre("open", "select 3000", "close"));
    EXPECT_EQ(IsWorkerForced(), forced);
    EXPECT_EQ(m_Plugin.m_MdstatDescriptor, -1);
  }
}

TEST_F(EventPollTest, AFailingSelectNamesItsOwnErrorAndEndsTheThreadAlone) {
  m_Door.m_Answer = -1;
  m_Door.m_Error = EINTR;
  try {
    m_Plugin.EventPollRound();
    ADD_FAILURE() << "no exception";
  } catch (const KVT::CSystemException& exception) {
    EXPECT_EQ(exception.code().value(), EINTR);
  }
  EXPECT_EQ(m_Machine.OpenDescriptors(), 0U);
  m_Plugin.EventPoll();  // writes to the error log and returns
  EXPECT_FALSE(IsWorkerForced());
  EXPECT_EQ(m_Plugin.m_StopRequest.Wait(0), KVT::Threading::WAIT_TIMED_OUT) << "the worker goes on";
}

TEST_F(EventPollTest, WithoutMdItLooksAgainEveryThreeSeconds) {
  m_Machine.SetFile("/proc/mdstat", std::nullopt);
  EXPECT_TRUE(m_Plugin.EventPollRound());
  EXPECT_EQ(m_Door.m_Slept, 3000U);
  EXPECT_THAT(m_Door.m_Steps, ElementsAre("open"));
  EXPECT_FALSE(IsWorkerForced());
}

TEST_F(EventPollTest, AStopRequestEndsItBeforeAnythingIsOpened) {
  m_Plugin.m_StopRequest.Set();
  EXPECT_FALSE(m_Plugin.EventPollRound());
  EXPECT_TRUE(m_Door.m_Steps.empty());
}

/// Both threads on a machine that follows the wall clock.
struct SLiveRig {
  CConfigFolder m_Config;
  CSimulatedMachine m_Machine{MIRROR, CSimulatedMachine::EClock::Real};
  CNotificationCounter m_Notifications;
  CTestInstance m_Plugin{m_Machine};

  SLiveRig() {
    m_Notifications.Attach(m_Plugin);
    std::vector<PI::CAdapterID> adapterIDs;
    m_Plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
    m_Plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapterIDs);
  }
  ~SLiveRig() { m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr); }

  /// Fetches as a front end does until an event with this code came.
  bool Await(unsigned int code) {
    return Eventually([&] {
      PI::COperation fetch;
      fetch.m_Code = PI::OP_GET_EVENTS;
      m_Plugin.Execute(PI::CMD_EXECUTE_OPERATION, PluginID(), &fetch);
      return std::any_of(fetch.m_Events.begin(), fetch.m_Events.end(),
                         [&](const PI::CEvent& event) { return event.m_Code == code; });
    });
  }
  static unsigned long PluginID() { return 295UL << 48; }
};

TEST(Threads, AChangeOfMdReachesTheQueueWithoutWaitingForTheInterval) {
  SLiveRig rig;
  const auto begin = std::chrono::steady_clock::now();
  rig.m_Machine.Apply(R"({"fail_member": {"array": "md0", "disk": "sdb"}})");
  EXPECT_TRUE(rig.Await(PI::EVT_LOGICALDRIVE_DEGRADED));
  rig.m_Machine.Apply(R"({"stop_array": "md0"})");
  EXPECT_TRUE(rig.Await(PI::EVT_LOGICALDRIVE_DELETED));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 8s)
      << "only the ten-second interval brought the changes";
}

TEST(Threads, AChangeOfTheIntervalNotifiesTheFramework) {
  SLiveRig rig;
  PI::CProperty interval(PI::PROP_POLL_INTERVAL);
  interval.SetValue(30, 2, 255, 1);
  EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_SET_PROPERTY, SLiveRig::PluginID(), &interval), PI::OK);
  EXPECT_TRUE(Eventually([&] { return rig.m_Notifications.Count() == 1; }));
}

TEST(Threads, DeInitialiseEndsBothWithinFourSecondsOfAnyMoment) {
  for (const auto delay : {0ms, 5ms, 40ms, 700ms}) {
    SCOPED_TRACE(delay.count());
    SLiveRig rig;
    rig.m_Machine.Apply(R"({"start_resync": "md0"})");  // its array is not clean: a pass takes long
    std::this_thread::sleep_for(delay);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
    EXPECT_EQ(rig.m_Plugin.m_WorkerThread->Wait(0), KVT::Threading::WAIT_OK);
    EXPECT_EQ(rig.m_Plugin.m_EventPollThread->Wait(0), KVT::Threading::WAIT_OK);
    EXPECT_EQ(rig.m_Machine.OpenDescriptors(), 0U);
  }
}

TEST(Threads, RepeatedCommandTwoStartsNoSecondPair) {
  SLiveRig rig;
  const auto* const worker = rig.m_Plugin.m_WorkerThread.get();
  const auto* const poller = rig.m_Plugin.m_EventPollThread.get();
  const std::vector<PI::CAdapterID> adapterIDs(2);
  rig.m_Plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, const_cast<std::vector<PI::CAdapterID>*>(&adapterIDs));
  EXPECT_EQ(rig.m_Plugin.m_WorkerThread.get(), worker);
  EXPECT_EQ(rig.m_Plugin.m_EventPollThread.get(), poller);
  EXPECT_EQ(rig.m_Plugin.m_AdapterIDs.size(), 3U);
}

}  // namespace
