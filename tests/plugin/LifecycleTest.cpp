// From the construction to the end of the threads, with the poll interval and the lock of the model.

#include <future>

#include "tests/support/Arrays.h"
#include "tests/support/FailingCalls.h"

extern "C" {
CreateIfFunction createIf;
ReleaseIfFunction releaseIf;
}

using namespace NAMESPACE_piRVX;
using namespace std::chrono_literals;

namespace {

TEST(Entries, MakeAndReleaseTheOneInstance) {
  const CConfigFolder config;
  Simulation::CSimulatedSystem machine("{}");
  UseMachine(&machine);
  IPLUGINAPI* plugin = nullptr;
  ASSERT_EQ(createIf(&plugin), PI::OK);
  EXPECT_EQ(plugin->m_ModuleNumber, 295U);
  EXPECT_EQ(plugin->m_InterfaceVersion, 2U);
  IPLUGINAPI* second = plugin;
  {
    const CFailingAllocation noMemory(CFailingAllocation::ALL_THAT_DO_NOT_THROW);
    EXPECT_EQ(createIf(&second), PI::ERR_OUT_OF_MEMORY);
  }
  EXPECT_EQ(second, nullptr) << "a failed creation takes the instance away";
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, plugin);
  // A null pointer clears the global too, and so does every release.
  EXPECT_EQ(releaseIf(&second), &g_p_IPLUGINAPI_IMPL);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, nullptr);
  EXPECT_EQ(releaseIf(&plugin), &g_p_IPLUGINAPI_IMPL);
  EXPECT_EQ(plugin, nullptr);
}

TEST(PollInterval, IsReadAsANumberAndKeptInItsLimits) {
  const std::pair<const char*, unsigned int> cases[] = {
      {"PollInterval=30\n", 30}, {"PollInterval=300\n", 255},        {"PollInterval=0\n", 2},
      {"PollInterval=-5\n", 2},  {"PollInterval=99999999999\n", 10}, {"PollInterval=7s\n", 10}};
  Simulation::CSimulatedSystem machine("{}");
  const CConfigFolder config;
  EXPECT_EQ(CTestInstance(machine).m_PollInterval, 10U) << "no file";
  for (const auto& [text, seconds] : cases) {
    config.Write(text);
    EXPECT_EQ(CTestInstance(machine).m_PollInterval, seconds) << text;
  }
}

TEST(PollInterval, IsSetWithinTheLimitsThatComeWithIt) {
  SRig rig;
  CTestInstance& plugin = rig.m_Plugin;
  const auto set = [&](auto... value) {
    PI::CProperty property(PI::PROP_POLL_INTERVAL);
    property.SetValue(value...);
    const unsigned long counter = plugin.m_Plugin.m_UpdateCounter;
    const unsigned int status = plugin.Execute(PI::CMD_SET_PROPERTY, plugin.m_Plugin.m_ID, &property);
    return Text("%d: %d s, counted %d, woken %d", status, plugin.m_PollInterval.load(),
                plugin.m_Plugin.m_UpdateCounter - counter, Take(plugin.m_PrivateEvent));
  };
  rig.m_Config.Write("Other=kept\n");
  EXPECT_EQ(set(1000, 2, 255, 1U), "0: 255 s, counted 1, woken 1");
  EXPECT_EQ(set(3, 5, 50, 1U), "0: 5 s, counted 1, woken 1");
  EXPECT_EQ(set(9, 20, 8, 1U), "0: 8 s, counted 1, woken 1") << "raised first, then lowered";
  EXPECT_EQ(rig.m_Config.Read(), "Other=kept\nPollInterval=8\n");
  EXPECT_EQ(set("5"), "20010: 8 s, counted 0, woken 0");
  std::filesystem::remove(rig.m_Config.File());
  std::filesystem::create_directory(rig.m_Config.File());  // no file can take its place
  EXPECT_EQ(set(77, 2, 255, 1U), "20003: 77 s, counted 1, woken 1") << "in force all the same";
}

std::string Initialize(IPLUGINAPI& plugin, std::vector<PI::CAdapterID>& adapterIDs) {
  adapterIDs.resize(1);
  testing::internal::CaptureStdout();
  const unsigned int status = plugin.Execute(PI::CMD_INITIALIZE, 0, &adapterIDs);
  return Text("%d %s", status, testing::internal::GetCapturedStdout());
}

TEST(Initialize, TellsWhereItsAdapterIs) {
  SBareRig rig;
  CTestInstance& plugin = rig.m_Plugin;
  std::vector<PI::CAdapterID> adapterIDs;
  CRVXAdapter& adapter = plugin.m_Adapter;
  std::tie(adapter.m_Location1, adapter.m_Location2, adapter.m_Location3) = std::tuple(1U, 2U, 3U);
  adapter.m_Parents = {7};
  EXPECT_EQ(Initialize(plugin, adapterIDs), "0 piRVX:  Initialize:  adapter count is 1\n");
  ASSERT_EQ(adapterIDs.size(), 2U) << "the identifier is appended";
  const PI::CAdapterID& id = adapterIDs.back();
  EXPECT_EQ(Text("%s|%d %d %d %d %d %d", id.m_Text, id.m_First, id.m_Location1, id.m_Location2,
                 id.m_Location3, id.m_Fifth, id.m_AdapterNumber),
            "|0 1 2 3 0 -1");
  EXPECT_THAT(plugin.m_Adapter.m_Parents, testing::ElementsAre(7U, plugin.m_Plugin.m_ID));
  EXPECT_EQ(plugin.Begin(), PI::OK);
  EXPECT_EQ(plugin.Topology().size(), 12U) << "a second scan takes the place of the first";
}

TEST(Initialize, AFailedScanLeavesNothingButTheLine) {
  for (const int readings : {0, 1, 4, 20, 40}) {
    SCOPED_TRACE(readings);
    SBareRig<CHookedSystem> rig;
    CTestInstance& plugin = rig.m_Plugin;
    std::vector<PI::CAdapterID> adapterIDs;
    rig.m_Own.m_Hook = [left = readings](const std::string& call) mutable -> CHookedSystem::TAnswer {
      if (call == "read" && left-- == 0) throw std::bad_alloc();
      return {};
    };
    EXPECT_EQ(Initialize(plugin, adapterIDs), "20001 piRVX:  Initialize:  adapter count is 1\n");
    EXPECT_EQ(adapterIDs.size() + plugin.m_Plugin.m_Children.size() + plugin.m_Adapter.m_Children.size(), 0U);
    EXPECT_EQ(plugin.Topology().size(), 2U);
    EXPECT_EQ(Text("%d %d", plugin.m_Plugin.m_UpdateCounter, plugin.m_Adapter.m_UpdateCounter), "1 0");
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

TEST(DataLock, RequestsWaitUntilTheModelIsFree) {
  SBareRig rig("{}");
  CTestInstance& plugin = rig.m_Plugin;
  std::vector<PI::CProperty> properties;
  plugin.m_DataLock.Wait();
  std::future<void> requests[] = {
      std::async(std::launch::async, [&] { plugin.Begin(); }),
      std::async(std::launch::async, [&] { plugin.Topology(); }),
      std::async(std::launch::async, [&] { plugin.GetProperties(4711, properties); }),
      std::async(std::launch::async, [&] { Execute(plugin, 4711, Operation(50002)); })};
  for (const auto& request : requests) EXPECT_EQ(request.wait_for(50ms), std::future_status::timeout);
  plugin.m_DataLock.Release();
  for (const auto& request : requests) EXPECT_EQ(request.wait_for(20s), std::future_status::ready);
}

TEST(SetAdapterIDs, TheFirstNumberEverGivenForTheLocationCounts) {
  const std::pair<std::vector<std::tuple<int, int, int, int>>, const char*> steps[] = {
      {{{1, 2, 3, -1}, {9, 2, 3, 7}, {1, 9, 3, 7}, {1, 2, 9, 7}}, "Linux Multiple Devices (0)"},
      {{{1, 2, 3, 3}, {1, 2, 3, 4}}, "Linux Multiple Devices (3)"},
      {{{1, 2, 3, 5}}, "Linux Multiple Devices (3)"}};
  SRig rig("{}");
  CRVXAdapter& adapter = rig.m_Plugin.m_Adapter;
  std::tie(adapter.m_Location1, adapter.m_Location2, adapter.m_Location3) = std::tuple(1U, 2U, 3U);
  rig.m_Plugin.m_StopRequest.Set();  // the threads end at once
  for (const auto& [given, description] : steps) {
    std::vector<PI::CAdapterID> ids;
    for (const auto& one : given) {
      PI::CAdapterID& id = ids.emplace_back();
      id.m_First = id.m_Fifth = 99;  // no part of the comparison
      std::tie(id.m_Location1, id.m_Location2, id.m_Location3, id.m_AdapterNumber) = one;
    }
    EXPECT_EQ(rig.m_Plugin.StartThreads(ids), PI::OK);
    EXPECT_EQ(adapter.m_Description, description);
    EXPECT_TRUE(Eventually([&] { return !rig.m_Plugin.HasRunningThread(); }));
  }
  EXPECT_EQ(rig.m_Plugin.m_AdapterIDs.size(), 7U);
}

/// Out of line and endless: the address sanitizer then forgets the callers' frames before they are unwound.
[[noreturn, gnu::noinline]] void HangUntilCancelled(KVT::Threading::CEvent& hangs) {
  hangs.Set();
  while (true) KVT::Misc::msleep(1000);  // a cancellation point that the thread sanitizer follows
}

TEST(DeInitialize, AThreadThatHangsIsCancelledAfterTheBoundWhateverTheClockDoes) {
  // The call that hangs, whose thread that is, and how far the clock jumps at every look.
  const std::tuple<std::string, const char*, std::int64_t> cases[] = {
      {"", "Kill ", -3'600'000},
      {"", "Kill ", 3'600'000},
      {"read", "Kill Worker", -3'600'000},
      {"wait 3000", "Kill EventPoll", 3'600'000}};
  for (const auto& [hanging, kill, jump] : cases) {
    SCOPED_TRACE(Text("%s %d", hanging, jump));
    KVT::Threading::CEvent hangs;
    std::atomic<int> pauses{0};
    std::atomic<std::uint64_t> now{std::uint64_t{1} << 40};
    SRigOf<CHookedSystem> rig;  // at its end nothing may be open or held
    rig.m_Own.m_Hook = [&, call = hanging, step = static_cast<std::uint64_t>(jump)](
                           const std::string& made) -> CHookedSystem::TAnswer {
      if (made == call) HangUntilCancelled(hangs);
      if (made == "now") return now += step;
      if (made == "sleep 500") ++pauses;
      if (!made.starts_with("sleep") && !made.starts_with("wait")) return {};
      std::this_thread::sleep_for(1ms);
      return 0;
    };
    rig.m_Plugin.StartThreads();
    if (!hanging.empty()) {
      ASSERT_EQ(hangs.Wait(20000), KVT::Threading::WAIT_OK);
      EXPECT_EQ(CTestInstance::IsFree(rig.m_Plugin.m_DataLock), hanging != "read");
    }
    const CTraceCapture trace(TRACE_LIFECYCLE);
    EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
    EXPECT_EQ(trace.Count("Kill "), hanging.empty() ? 0U : 1U);
    EXPECT_EQ(trace.Count(kill), hanging.empty() ? 0U : 1U) << "the one that hangs";
    EXPECT_EQ(pauses == 50, !hanging.empty()) << "twenty-five seconds";
    ASSERT_TRUE(Eventually([&] { return !rig.m_Plugin.HasRunningThread(); }));
  }
}

}  // namespace
