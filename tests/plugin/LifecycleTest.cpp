// From the construction to the end of the threads.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "Src/piRVXTrace.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/NoMemory.h"
#include "tests/support/TestInstance.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;
using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

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
      {"PollInterval=30\n", 30}, {"PollInterval=300\n", 255},        {"PollInterval=0\n", 2},
      {"PollInterval=-5\n", 2},  {"PollInterval=99999999999\n", 10}, {"PollInterval=\n", 10},
      {"PollInterval=7s\n", 10}, {"PollInterval=7.5\n", 10},         {"Interval=30\n", 10}};
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
  SBareRig rig;
  CTestInstance& plugin = rig.m_Plugin;
  const SInitialized initialized(plugin);
  EXPECT_EQ(initialized.m_Status, PI::OK);
  EXPECT_EQ(initialized.m_Output, STDOUT_LINE);
  std::vector<unsigned long> ids = {plugin.m_Plugin.m_ID, plugin.m_Adapter.m_ID};
  for (const auto& drive : plugin.m_PhysicalDrives) ids.push_back(drive.m_ID);
  for (const auto& array : plugin.m_LogicalDrives) ids.push_back(array.m_ID);
  ASSERT_EQ(ids.size(), 12U);
  for (std::size_t at = 0; at < ids.size(); ++at) EXPECT_EQ(ids[at], 0x0127000000000000UL + at);
  EXPECT_THAT(plugin.m_Plugin.m_Children, ElementsAre(ids[1]));
  EXPECT_THAT(plugin.m_Adapter.m_Parents, ElementsAre(ids[0]));
  EXPECT_EQ(plugin.m_Adapter.m_Children, std::vector<unsigned long>(ids.begin() + 2, ids.end()));
  ASSERT_EQ(initialized.m_AdapterIDs.size(), 1U);
  EXPECT_EQ(initialized.m_AdapterIDs.front().m_AdapterNumber, PI::CAdapterID::NO_ADAPTER_NUMBER);
  std::vector<PI::CAdapterID> earlier(2);
  EXPECT_EQ(plugin.Initialize(earlier), PI::OK);
  EXPECT_EQ(earlier.size(), 3U) << "the identifier is appended";
}

TEST(Initialize, AFailedScanLeavesNothingButTheLine) {
  for (const int readings : {0, 1, 4, 30, 60}) {
    SCOPED_TRACE(readings);
    SBareRig<CStarvedDoor> rig;
    CTestInstance& plugin = rig.m_Plugin;
    rig.m_Own.m_Left = readings;
    const SInitialized initialized(plugin);
    ASSERT_LT(rig.m_Own.m_Left, 0) << "the scan reads less than that";
    EXPECT_EQ(initialized.m_Status, PI::ERR_SCAN_FAILED);
    EXPECT_EQ(initialized.m_Output, STDOUT_LINE);
    EXPECT_THAT(initialized.m_AdapterIDs, IsEmpty());
    EXPECT_THAT(plugin.m_PhysicalDrives, IsEmpty());
    EXPECT_THAT(plugin.m_LogicalDrives, IsEmpty());
    EXPECT_THAT(plugin.m_Plugin.m_Children, IsEmpty());
    EXPECT_EQ(plugin.m_Plugin.m_UpdateCounter, 1U);
    EXPECT_EQ(plugin.m_Adapter.m_UpdateCounter, 0U);
  }
}

TEST(Initialize, NamesTheLockOrEventThatCannotBePrepared) {
  const char* const members[] = {"m_DataLock", "m_PrivateEventsLock", "m_ForceWorker", "m_StopRequest",
                                 "m_PrivateEvent"};
  for (const auto& member : members) {
    const CFailingCall refusal(CFailingCall::PREPARE_LOCK, static_cast<int>(&member - members));
    SBareRig rig;
    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(rig.m_Plugin.Begin(), 20011U);
    const char* const text = "LEAVE Initialize() %s.Init() -> PI::ERR_LOCK_INITIALIZATION_FAILED -11";
    EXPECT_TRUE(trace.Shows("Src/piRVXPlugin", Text(text, member))) << trace.Text();
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
  const std::pair<std::vector<PI::CAdapterID>, const char*> steps[] = {
      {{AdapterID(0, -1)}, "Linux Multiple Devices (0)"},
      {{AdapterID(1, 8), AdapterID(0, 3), AdapterID(0, 4)}, "Linux Multiple Devices (3)"},
      {{AdapterID(0, 5)}, "Linux Multiple Devices (3)"}};
  SRig rig;
  rig.m_Plugin.m_StopRequest.Set();  // the threads end at once
  for (const auto& [given, description] : steps) {
    EXPECT_EQ(rig.m_Plugin.StartThreads(given), PI::OK);
    EXPECT_EQ(rig.m_Plugin.m_Adapter.m_Description, description);
    for (const auto* thread : {&rig.m_Plugin.m_WorkerThread, &rig.m_Plugin.m_EventPollThread})
      EXPECT_EQ((*thread)->Wait(20000), KVT::Threading::WAIT_OK);
  }
  EXPECT_EQ(rig.m_Plugin.m_AdapterIDs.size(), 5U);
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

TEST(DeInitialize, AThreadThatHangsIsCancelledAfterTheBoundAndUnwound) {
  using EHang = CHangingDoor::EHang;
  for (const EHang hang : {EHang::Nothing, EHang::Read, EHang::Select}) {
    SCOPED_TRACE(static_cast<int>(hang));
    SRigOf<CHangingDoor> rig;  // at its end nothing may be open or held
    rig.m_Own.m_Hang = hang;
    rig.m_Own.m_Sleeps.clear();  // the resyncing array's
    if (hang != EHang::Nothing) {
      rig.m_Plugin.StartThreads();
      for (const auto end = std::chrono::steady_clock::now() + 20s; !rig.m_Own.m_Hangs;) {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << "nothing hangs";
        std::this_thread::sleep_for(1ms);
      }
      EXPECT_EQ(CTestInstance::IsFree(rig.m_Plugin.m_DataLock), hang == EHang::Select);
      EXPECT_GT(rig.m_Machine.OpenDescriptors(), 0U);
    }
    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
    EXPECT_EQ(trace.Shows("Src/piRVXPlugin", "Kill Worker"), hang == EHang::Read);
    EXPECT_EQ(trace.Shows("Src/piRVXPlugin", "Kill EventPoll"), hang == EHang::Select);
    // Steps of half a second until more than 24999 ms have passed, between two pauses.
    std::vector<std::uint64_t> sleeps(hang == EHang::Nothing ? 0 : 50, 500);
    sleeps.insert(sleeps.begin(), 100);
    sleeps.push_back(100);
    EXPECT_EQ(rig.m_Own.m_Sleeps, sleeps);
    if (hang == EHang::Nothing) continue;
    EXPECT_EQ(rig.m_Plugin.m_WorkerThread->Wait(20000), KVT::Threading::WAIT_OK);
    EXPECT_EQ(rig.m_Plugin.m_EventPollThread->Wait(20000), KVT::Threading::WAIT_OK);
  }
}

}  // namespace
