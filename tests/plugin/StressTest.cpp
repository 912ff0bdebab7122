// Framework threads and the worker at once, on a machine that keeps changing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <random>
#include <thread>

#include "tests/support/TestInstance.h"

using namespace NAMESPACE_piRVX;
using namespace std::chrono_literals;

namespace {

constexpr int FRAMEWORK_THREADS = 8;

constexpr char MACHINE[] = R"({
  "controllers": [{"name": "ahci0", "pci": "0000:00:1f.2", "vendor": "0x8086", "driver": "ahci"}],
  "disks": [
    {"name": "sda", "size": 65536, "controller": "ahci0"},
    {"name": "sdb", "size": 65536, "controller": "ahci0"},
    {"name": "sdc", "size": 65536, "controller": "ahci0"},
    {"name": "sdd", "size": 65536, "controller": "ahci0"}
  ],
  "arrays": [{"name": "md0", "level": "raid1", "members": ["sda", "sdb"]}]
})";

/// One change of the machine and what must be reported of it, in this order and once.
struct SStep {
  const char* m_Change;
  std::vector<unsigned int> m_Events;
};

/// Ends where it began, so that it can be gone through again and again.
const std::vector<SStep> CYCLE = {
    {R"({"hold_disk": "sdc"})", {PI::EVT_READY_DRIVE_IN_USE}},
    {R"({"release_disk": "sdc"})", {PI::EVT_USED_DRIVE_READY}},
    {R"({"disk_state": {"sdc": "offline"}})", {PI::EVT_READY_DRIVE_OFFLINE}},
    {R"({"disk_state": {"sdc": "running"}})", {PI::EVT_FAILED_DRIVE_READY}},
    {R"({"remove_disk": "sdd"})", {PI::EVT_PHYSICALDRIVE_REMOVED}},
    {R"({"add_disk": {"name": "sdd", "size": 65536, "controller": "ahci0"}})", {PI::EVT_PHYSICALDRIVE_ADDED}},
    {R"({"fail_member": {"array": "md0", "disk": "sdb"}})", {PI::EVT_LOGICALDRIVE_DEGRADED}},
    {R"({"remove_member": {"array": "md0", "disk": "sdb"}})", {PI::EVT_FAILED_DRIVE_READY}},
    {R"({"stop_array": "md0"})", {PI::EVT_USED_DRIVE_READY, PI::EVT_LOGICALDRIVE_DELETED}},
    {R"({"add_array": {"name": "md0", "level": "raid1", "members": ["sda", "sdb"]}})",
     {PI::EVT_READY_DRIVE_IN_USE, PI::EVT_READY_DRIVE_IN_USE, PI::EVT_LOGICALDRIVE_ADDED}},
};

/// The events that any front end fetched, in order, without those that come with every pass: the rescans that
/// the test asks for, and a failed member that md still holds.
class CEventLog {
 public:
  void Fetch(IPLUGINAPI& plugin, unsigned long pluginID) {
    const std::lock_guard lock(
        m_Lock);  // held over the fetch: two fetches must not be logged the wrong way round
    PI::COperation fetch;
    fetch.m_Code = PI::OP_GET_EVENTS;
    plugin.Execute(PI::CMD_EXECUTE_OPERATION, pluginID, &fetch);
    for (const PI::CEvent& event : fetch.m_Events)
      if (event.m_Code != PI::EVT_RESCAN_REQUESTED && event.m_Code != PI::EVT_FAILED_DRIVE_IN_USE)
        m_Codes.push_back(event.m_Code);
  }
  std::vector<unsigned int> Codes() {
    const std::lock_guard lock(m_Lock);
    return m_Codes;
  }

 private:
  std::mutex m_Lock;
  std::vector<unsigned int> m_Codes;
};

/// Asks for anything that can be read, at random, until told to end.
void ReadAtRandom(IPLUGINAPI& plugin, CEventLog& log, unsigned int seed, const std::atomic<bool>& end) {
  std::minstd_rand random(seed);
  std::vector<PI::CObject> topology;
  while (!end) {
    plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &topology);
    const PI::CObject object = topology[random() % topology.size()];
    const PI::CObject& own = topology.front();
    switch (random() % 5) {
      case 0: {
        std::vector<PI::CProperty> properties;
        plugin.Execute(PI::CMD_GET_PROPERTIES, object.m_ID, &properties);
        break;
      }
      case 1: {
        PI::CProperty property(PI::PROP_STATUS);
        plugin.Execute(PI::CMD_GET_PROPERTY, object.m_ID, &property);
        break;
      }
      case 2: {
        std::vector<PI::COperation> operations;
        plugin.Execute(PI::CMD_GET_OPERATIONS, object.m_ID, &operations);
        break;
      }
      case 3: {
        PI::COperation operation;
        operation.m_Code = PI::OP_DELETE_ALL_LOGICAL_DRIVES;
        plugin.Execute(PI::CMD_CHECK_OPERATION, object.m_ID, &operation);
        break;
      }
      default:
        log.Fetch(plugin, own.m_ID);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 20));  // leave the worker its turns
  }
}

TEST(Stress, EveryChangeIsReportedOnceAndInOrder) {
  const char* const setting = std::getenv("RVX_STRESS_SECONDS");
  const auto duration = std::chrono::seconds(setting != nullptr ? std::atoi(setting) : 5);
  const CConfigFolder config;
  CSimulatedMachine machine(MACHINE, CSimulatedMachine::EClock::Real);
  CTestInstance plugin(machine);
  CNotificationCounter notifications;
  notifications.Attach(plugin);
  std::vector<PI::CAdapterID> adapterIDs;
  ASSERT_EQ(plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs), PI::OK);
  plugin.Execute(PI::CMD_SET_ADAPTER_IDS, 0, &adapterIDs);
  std::vector<PI::CObject> topology;
  plugin.Execute(PI::CMD_GET_TOPOLOGY, 0, &topology);
  const unsigned long pluginID = topology[0].m_ID;
  const unsigned long adapterID = topology[1].m_ID;

  CEventLog log;
  std::atomic<bool> end{false};
  std::vector<std::thread> threads;
  for (unsigned int thread = 0; thread < FRAMEWORK_THREADS; ++thread)
    threads.emplace_back([&, thread] { ReadAtRandom(plugin, log, thread + 1, end); });

  std::vector<unsigned int> expected;
  std::size_t step = 0;
  const auto begin = std::chrono::steady_clock::now();
  for (; std::chrono::steady_clock::now() - begin < duration && !testing::Test::HasFailure(); ++step) {
    const SStep& now = CYCLE[step % CYCLE.size()];
    SCOPED_TRACE(testing::Message() << "step " << step << ": " << now.m_Change);
    machine.Apply(now.m_Change);
    expected.insert(expected.end(), now.m_Events.begin(), now.m_Events.end());
    for (const auto limit = std::chrono::steady_clock::now() + 30s;
         log.Codes().size() < expected.size() && std::chrono::steady_clock::now() < limit;) {
      PI::COperation rescan;
      rescan.m_Code = PI::OP_RESCAN_ADAPTER;
      plugin.Execute(PI::CMD_EXECUTE_OPERATION, adapterID, &rescan);
      std::this_thread::sleep_for(5ms);
      log.Fetch(plugin, pluginID);
    }
    EXPECT_EQ(log.Codes(), expected);
  }
  end = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
  log.Fetch(plugin, pluginID);
  EXPECT_EQ(log.Codes(), expected) << "something came late or twice";
  EXPECT_GE(step, CYCLE.size()) << "too slow to have gone through every change";
  EXPECT_EQ(machine.OpenDescriptors(), 0U);
}

}  // namespace
