// What a server that runs for months meets: no threads, no memory, hanging calls, clocks that are set, nobody
// who fetches.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <locale>
#include <thread>

#include "Src/piRVXText.h"
#include "tests/support/Arrays.h"
#include "tests/support/TraceCapture.h"

using namespace NAMESPACE_piRVX;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

extern "C" CreateIfFunction createIf;
extern "C" ReleaseIfFunction releaseIf;

namespace {

const std::string MIRROR = DisksOf({65536, 65536, 65536}, MirrorOfTwo("md0"));

/// Waits for a condition, twenty seconds at most.
template <class TCondition>
bool Eventually(TCondition condition) {
  for (const auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
    if (condition()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

std::size_t Count(const std::string& text, const std::string& part) {
  std::size_t count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++count;
  return count;
}

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
  EXPECT_THAT(log.Text(), HasSubstr("SetAdapterIDs() can't start the thread EventPoll: pthread_create"));
  EXPECT_THAT(log.Text(), HasSubstr("SetAdapterIDs() can't start the thread Worker: pthread_create"));
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
  for (int round = 0; round < 200; ++round) {
    rig.m_Plugin.m_ForceWorker.Set();
    EXPECT_EQ(rig.m_Plugin.StartThreads({number}), PI::OK);
  }
}

/// Hangs where no cancellation reaches it, until the test lets go; sleeps take no time.
class CStuckDoor : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  int Ioctl(int descriptor, unsigned long request, void* argument) override {
    while (request == GET_ARRAY_INFO && m_Sticks) {
      m_Stuck = true;
      std::this_thread::yield();  // unlike a sleep no cancellation point
    }
    return CForwardingMachine::Ioctl(descriptor, request, argument);
  }
  void Sleep(std::uint64_t) override { std::this_thread::sleep_for(1ms); }
  std::atomic<bool> m_Sticks{false};
  std::atomic<bool> m_Stuck{false};
};

TEST(Release, LeavesAnInstanceInPlaceThatAThreadStillUses) {
  const CConfigFolder config;
  CSimulatedMachine machine(MIRROR, CSimulatedMachine::EClock::Real);
  CStuckDoor door(machine);
  UseMachine(&door);
  IPLUGINAPI* plugin = nullptr;
  ASSERT_EQ(createIf(&plugin), PI::OK);
  CNotificationCounter notifications;
  notifications.Attach(*plugin);
  std::vector<PI::CAdapterID> ids;
  ASSERT_EQ(plugin->Execute(PI::CMD_INITIALIZE, 0, &ids), PI::OK);
  auto* const instance = static_cast<IPLUGINAPI_IMPL*>(plugin);
  const CTraceCapture log(0);
  door.m_Sticks = true;
  plugin->Execute(PI::CMD_SET_ADAPTER_IDS, 0, &ids);
  ASSERT_TRUE(Eventually([&] { return door.m_Stuck.load(); }));
  EXPECT_EQ(plugin->Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
  releaseIf(&plugin);
  EXPECT_EQ(plugin, nullptr);
  EXPECT_EQ(g_p_IPLUGINAPI_IMPL, nullptr);
  EXPECT_THAT(log.Text(), HasSubstr("releaseIf() a thread still runs: its instance is left in place"));
  door.m_Sticks = false;
  // The call comes back, to memory that is still there; then the cancellation takes hold.
  ASSERT_TRUE(Eventually([&] { return !instance->HasRunningThread(); }));
  delete instance;
  UseMachine(nullptr);
}

/// A clock that jumps at every look, and a worker that hangs at a cancellation point.
class CJumpingClock : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  std::uint64_t Now() override { return m_Now += m_Jump; }
  void Sleep(std::uint64_t milliseconds) override {
    if (milliseconds == 500) ++m_Pauses;
    std::this_thread::sleep_for(1ms);
  }
  int WaitExceptional(int, std::uint64_t) override {
    std::this_thread::sleep_for(3ms);
    return 0;
  }
  ssize_t Read(int descriptor, void* buffer, std::size_t size) override {
    while (m_Hangs) KVT::Misc::msleep(10);
    return CForwardingMachine::Read(descriptor, buffer, size);
  }
  std::atomic<std::uint64_t> m_Now{std::uint64_t{1} << 40};
  std::atomic<std::uint64_t> m_Jump{0};
  std::atomic<bool> m_Hangs{false};
  std::atomic<int> m_Pauses{0};
};

TEST(DeInitialize, IsBoundedByItsSleepsWhateverTheClockDoes) {
  for (const std::int64_t jump : {-3'600'000, 3'600'000}) {
    SCOPED_TRACE(jump);
    SRigOf<CJumpingClock> rig(MIRROR);
    rig.m_Own.m_Jump = static_cast<std::uint64_t>(jump);
    for (const bool hangs : {false, true}) {
      rig.m_Plugin.m_StopRequest.Reset();
      rig.m_Own.m_Hangs = hangs;
      rig.m_Own.m_Pauses = 0;
      rig.m_Plugin.StartThreads();
      const CTraceCapture trace(TRACE_LIFECYCLE);
      const auto hangsNow = [&] { return !CTestInstance::IsFree(rig.m_Plugin.m_DataLock); };
      ASSERT_TRUE(!hangs || Eventually(hangsNow));
      EXPECT_EQ(rig.m_Plugin.Execute(PI::CMD_DEINITIALIZE, 0, nullptr), PI::OK);
      EXPECT_EQ(Count(trace.Text(), "Kill "), hangs ? 1U : 0U);
      EXPECT_EQ(rig.m_Own.m_Pauses == 50, hangs);
      ASSERT_TRUE(Eventually([&] { return !rig.m_Plugin.HasRunningThread(); }));
    }
  }
}

/// udevadm gives no answer in its time.
class CHangingUdevadm : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  int ExecuteCommand(const boost::filesystem::path& program, const std::string& arguments,
                     std::vector<std::string>& lines) override {
    if (!m_Hangs) return CForwardingMachine::ExecuteCommand(program, arguments, lines);
    ++m_Runs;
    return 130;
  }
  bool m_Hangs{false};
  int m_Runs{0};
};

TEST(Udevadm, ThatHangsIsAskedOncePerPassAndAgainByTheNext) {
  SRigOf<CHangingUdevadm> rig(MIRROR);
  const CTraceCapture log(0);
  rig.m_Own.m_Hangs = true;
  for (int pass = 1; pass <= 2; ++pass) {
    rig.Pass();
    EXPECT_EQ(rig.m_Own.m_Runs, pass);
    EXPECT_EQ(
        Count(log.Text(), "udevadm gave no answer about sda in time: this scan asks about no further disk"),
        static_cast<std::size_t>(pass));
  }
  EXPECT_THAT(rig.m_Plugin.m_PhysicalDrives, IsEmpty());
  rig.m_Own.m_Hangs = false;
  rig.Pass();
  EXPECT_EQ(rig.m_Plugin.m_PhysicalDrives.size(), 3U);
}

/// Runs out of memory once while it waits for a change.
class CStarvedWait : public CForwardingMachine {
 public:
  using CForwardingMachine::CForwardingMachine;
  int WaitExceptional(int descriptor, std::uint64_t) override {
    if (++m_Waits == 1) throw std::bad_alloc();
    m_Stop->Set();
    return CForwardingMachine::WaitExceptional(descriptor, 0);
  }
  void Sleep(std::uint64_t milliseconds) override { m_Slept += milliseconds; }
  int m_Waits{0};
  std::uint64_t m_Slept{0};
  KVT::Threading::CEvent* m_Stop{nullptr};
};

TEST(EventPoll, OutlivesAWantOfMemoryWithAPause) {
  SRigOf<CStarvedWait> rig(MIRROR);  // at its end nothing may be open
  rig.m_Own.m_Stop = &rig.m_Plugin.m_StopRequest;
  rig.m_Own.m_Slept = 0;
  const CTraceCapture log(0);
  rig.m_Plugin.EventPoll();
  EXPECT_EQ(rig.m_Own.m_Waits, 2);
  EXPECT_EQ(rig.m_Own.m_Slept, 3000U);
  EXPECT_THAT(log.Text(), HasSubstr("EventPoll() round failed: std::bad_alloc"));
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
  EXPECT_EQ(Count(log.Text(), "100000 events wait to be fetched: the oldest are dropped from now on"), 1U);
}

/// Writes numbers with a mark at every thousand, as some languages do.
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

TEST(ArrayName, OfAKernelWithoutPartitionableArraysSaysThatTheNodeCannotBeMade) {
  SRig rig(DisksOf({65536, 65536}));
  rig.m_Plugin.m_MdMajor = -1;
  const CTraceCapture trace(TRACE_LIFECYCLE);
  EXPECT_EQ(Create(rig.m_Plugin, PI::LEVEL_RAID1, 0, {"sda", "sdb"}), PI::ERR_OPEN_FAILED);
  EXPECT_TRUE(
      trace.Shows("Src/piRVXAdapter", "GetUnusedArrayName() can't create /dev/md_d0, No such device"));
  EXPECT_THAT(rig.m_Door.NodesMade(), IsEmpty());
}

}  // namespace
