// What a server that runs for months meets: no threads, no memory, hanging calls, nobody who fetches.

#include <pthread.h>

#include <locale>
#include <thread>

#include "Src/piRVXText.h"
#include "tests/support/Arrays.h"

using namespace NAMESPACE_piRVX;
using namespace std::chrono_literals;
using testing::IsEmpty;

extern "C" CreateIfFunction createIf;
extern "C" ReleaseIfFunction releaseIf;

namespace {

const std::string MIRROR = DisksOf({65536, 65536, 65536}, MirrorOfTwo("md0"));

/// While it lives, no thread can be made: its stack would not fit into any address space.
class CNoThreads {
 public:
  CNoThreads() { SetStack(std::size_t{1} << 47); }
  ~CNoThreads() { SetStack(m_Before); }

 private:
  void SetStack(std::size_t size) {
    pthread_attr_t attributes;
    pthread_getattr_default_np(&attributes);
    if (m_Before == 0) pthread_attr_getstacksize(&attributes, &m_Before);
    pthread_attr_setstacksize(&attributes, size);
    EXPECT_EQ(pthread_setattr_default_np(&attributes), 0);
    pthread_attr_destroy(&attributes);
  }
  std::size_t m_Before{0};
};

TEST(Threads, ThatCannotBeHadAreToldOfAndStartedByTheNextCommand) {
  SRigOf<> rig(MIRROR, CSimulatedMachine::EClock::Real);
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
  SLiveRig rig(MIRROR);  // what it looks for, the thread sanitizer finds
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
  CSimulatedMachine machine(MIRROR, CSimulatedMachine::EClock::Real);
  CHookedDoor door(machine);
  std::atomic<bool> sticks{false};
  std::atomic<bool> stuck{false};
  door.m_Hook = [&](const std::string& call) -> CHookedDoor::TAnswer {
    while (call == "ioctl" && sticks) {
      stuck = true;
      std::this_thread::yield();  // unlike a sleep no cancellation point
    }
    return call.starts_with("sleep") ? CHookedDoor::TAnswer(0) : std::nullopt;
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
  SRigOf<CHookedDoor> rig(MIRROR);
  const CTraceCapture log(0);
  std::size_t runs = 0;
  const auto answers = std::exchange(rig.m_Own.m_Hook, [&](const std::string& call) -> CHookedDoor::TAnswer {
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
  EXPECT_THAT(rig.m_Plugin.m_PhysicalDrives, IsEmpty());
  rig.m_Own.m_Hook = answers;
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 3U);
}

TEST(Events, NobodyFetchesTakeBoundedMemoryAndTheOldestGo) {
  SRig rig(MIRROR);
  const CTraceCapture log(0);
  rig.m_Plugin.m_EventQueue.resize(100'000);
  for (int more = 0; more < 3; ++more)
    Execute(rig.m_Plugin, rig.m_Plugin.m_Adapter.m_ID, Operation(PI::OP_RESCAN_ADAPTER));
  const auto events = rig.m_Plugin.TakeEvents();
  ASSERT_EQ(events.size(), 100'000U);
  EXPECT_EQ(events[events.size() - 3].m_Code, PI::EVT_RESCAN_REQUESTED);
  EXPECT_EQ(log.Count("100000 events wait to be fetched: the oldest are dropped from now on"), 1U);
}

/// As some languages do.
struct CGrouping : public std::numpunct<char> {
  char do_thousands_sep() const override { return ','; }
  std::string do_grouping() const override { return "\3"; }
};

TEST(Texts, DoNotFollowTheServersLocale) {
  const std::locale before = std::locale::global(std::locale(std::locale::classic(), new CGrouping));
  const std::string key = DeviceKey("SoftRAID0", 9, 16320);
  std::locale::global(before);
  EXPECT_EQ(key, "SoftRAID0&BLKDEV:Major=9&Minor=16320");
}

TEST(Partitions, AreReadInLinearTime) {
  std::string text = "major minor  #blocks  name\n\n";
  constexpr int ENTRIES = 200'000;
  for (int entry = 0; entry < ENTRIES; ++entry) text += " 8 " + std::to_string(entry) + " 1048576 sda\n";
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(ParsePartitions(text).size(), static_cast<std::size_t>(ENTRIES));
  // A fraction of a second; half a minute when each entry measures the rest of the text.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 15s);
}

}  // namespace
