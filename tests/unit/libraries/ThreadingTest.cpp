#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "KVT/Misc.h"
#include "KVT/Threading.h"

using namespace KVT::Threading;
using Native_OS::CFastMutex;

namespace {

/// Longer than any wait here may take; a test that needs it has failed.
constexpr unsigned long DEADLINE = 30'000;

unsigned long MillisecondsOf(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  action();
  const auto taken = std::chrono::steady_clock::now() - start;
  return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(taken).count());
}

TEST(FastMutex, HolderTakesItAgainAndOthersWaitForEveryRelease) {
  CFastMutex mutex;
  ASSERT_EQ(mutex.Init(), INIT_OK);
  const auto other = [&mutex](unsigned long milliseconds) {
    unsigned int result = 77;
    std::thread([&] {
      result = mutex.Wait(milliseconds);
      if (result == WAIT_OK) mutex.Release();
    }).join();
    return result;
  };
  EXPECT_EQ(mutex.Wait(), WAIT_OK);
  EXPECT_EQ(mutex.Wait(0), WAIT_OK);
  EXPECT_EQ(mutex.Wait(10), WAIT_OK);
  for (int releases = 0; releases < 3; ++releases) {
    EXPECT_EQ(other(0), WAIT_TIMED_OUT);
    mutex.Release();
  }
  EXPECT_EQ(other(0), WAIT_OK);
}

TEST(FastMutex, TimedWaitTakesItsTimeAndGetsAMutexReleasedMeanwhile) {
  CFastMutex mutex;
  ASSERT_EQ(mutex.Wait(), WAIT_OK);
  std::thread([&] {
    const unsigned long taken = MillisecondsOf([&] { EXPECT_EQ(mutex.Wait(50), WAIT_TIMED_OUT); });
    EXPECT_GE(taken, 50U);
  }).join();
  std::atomic<unsigned int> result{77};
  std::thread waiting([&] {
    result = mutex.Wait(DEADLINE);
    mutex.Release();
  });
  mutex.Release();
  waiting.join();
  EXPECT_EQ(result, WAIT_OK);
}

TEST(FastMutex, ExcludesThreadsWhateverTheTimeOut) {
  CFastMutex mutex;
  long counter = 0;
  const auto count = [&](unsigned long timeOut) {
    for (int i = 0; i < 2000; ++i) {
      while (mutex.Wait(timeOut) != WAIT_OK) std::this_thread::yield();
      ++counter;
      mutex.Release();
    }
  };
  std::thread unlimited(count, INFINITE_WAIT);
  std::thread timed(count, 5UL);
  std::thread trying(count, 0UL);
  unlimited.join();
  timed.join();
  trying.join();
  EXPECT_EQ(counter, 6000);
}

TEST(Event, AutoResetIsConsumedAndManualResetStays) {
  struct SCase {
    bool m_Signalled;
    bool m_ManualReset;
    unsigned int m_First;
    unsigned int m_Second;
  };
  for (const SCase& test :
       {SCase{false, false, WAIT_TIMED_OUT, WAIT_TIMED_OUT}, SCase{true, false, WAIT_OK, WAIT_TIMED_OUT},
        SCase{false, true, WAIT_TIMED_OUT, WAIT_TIMED_OUT}, SCase{true, true, WAIT_OK, WAIT_OK}}) {
    CEvent event;
    ASSERT_EQ(event.Init(test.m_Signalled, test.m_ManualReset), INIT_OK);
    EXPECT_EQ(event.Wait(0), test.m_First);
    EXPECT_EQ(event.Wait(0), test.m_Second);
    event.Set();
    event.Set();
    EXPECT_EQ(event.Wait(0), WAIT_OK);
    EXPECT_EQ(event.Wait(0), test.m_ManualReset ? WAIT_OK : WAIT_TIMED_OUT) << "two signals are one";
    event.Set();
    event.Reset();
    EXPECT_EQ(event.Wait(0), WAIT_TIMED_OUT);
  }
}

TEST(Event, TimedWaitNeverEndsEarly) {
  CEvent event;
  for (const unsigned long milliseconds : {1UL, 20UL, 1050UL})  // the last crosses a whole second
    EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(event.Wait(milliseconds), WAIT_TIMED_OUT); }), milliseconds);
}

TEST(Event, ManualResetWakesAllAutoResetWakesOne) {
  CEvent go;
  CEvent token;
  ASSERT_EQ(go.Init(false, true), INIT_OK);
  ASSERT_EQ(token.Init(true, false), INIT_OK);
  std::atomic<int> started{0};
  std::atomic<int> tokens{0};
  std::array<std::thread, 4> threads;
  for (auto& thread : threads)
    thread = std::thread([&] {
      if (go.Wait(DEADLINE) == WAIT_OK) ++started;
      if (token.Wait(0) == WAIT_OK) ++tokens;
    });
  go.Set();
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(started, 4);
  EXPECT_EQ(tokens, 1);
}

TEST(Waiter, LowestSignalledWinsAndTheOthersKeepTheirSignal) {
  std::array<CEvent, 3> events;
  CWaiter waiter{&events[0], &events[1], &events[2]};
  EXPECT_EQ(waiter.Wait(0), WAIT_TIMED_OUT);
  ASSERT_EQ(events[1].Init(false, true), INIT_OK);
  for (CEvent* event : {&events[2], &events[1], &events[0]}) event->Set();
  EXPECT_EQ(waiter.Wait(0), 1U);
  EXPECT_EQ(waiter.Wait(0), 2U);
  EXPECT_EQ(waiter.Wait(INFINITE_WAIT), 2U) << "a manual-reset event stays";
  events[1].Reset();
  EXPECT_EQ(waiter.Wait(0), 3U);
  EXPECT_EQ(waiter.Wait(0), WAIT_TIMED_OUT);
}

// Ping-pong over two events, past bystanders that wait for another one: a wake-up lost between look and
// sleep, or spent on the wrong thread, would stop it.
TEST(Waiter, LosesNoWakeUp) {
  constexpr int ROUNDS = 5000;
  CEvent ping;
  CEvent pong;
  CEvent never;
  CEvent quit;
  ASSERT_EQ(quit.Init(false, true), INIT_OK);
  std::array<std::thread, 2> bystanders;
  for (auto& thread : bystanders) thread = std::thread([&] { CWaiter{&never, &quit}.Wait(DEADLINE); });
  std::thread answering([&] {
    CWaiter waiter{&never, &ping};
    for (int round = 0; round < ROUNDS; ++round) {
      if (waiter.Wait(DEADLINE) != 2) return;
      pong.Set();
    }
  });
  CWaiter waiter{&pong, &never};
  int answered = 0;
  for (; answered < ROUNDS; ++answered) {
    ping.Set();
    if (waiter.Wait(DEADLINE) != 1) break;
  }
  quit.Set();
  answering.join();
  for (auto& thread : bystanders) thread.join();
  EXPECT_EQ(answered, ROUNDS);
}

TEST(WaitInterval, CountsDownToZeroAndRestarts) {
  CWaitInterval interval(DEADLINE);
  EXPECT_LE(interval.Remaining(), DEADLINE);
  EXPECT_GT(interval.Remaining(), DEADLINE / 2);
  interval.Restart(20);
  CEvent event;
  event.Wait(interval.Remaining());
  EXPECT_EQ(interval.Remaining(), 0U);
  interval.Restart(DEADLINE);
  EXPECT_GT(interval.Remaining(), 0U);
}

TEST(Thread, WaitTellsWhetherItRunsAndTheBodyIsGoneAtItsEnd) {
  CEvent go;
  const auto owned = std::make_shared<int>(0);
  auto thread = CThread::Create([&go, owned] { go.Wait(DEADLINE); }, 0);
  EXPECT_EQ(thread->Wait(0), WAIT_TIMED_OUT);
  EXPECT_EQ(thread->Wait(10), WAIT_TIMED_OUT);
  go.Set();
  EXPECT_EQ(thread->Wait(DEADLINE), WAIT_OK);
  EXPECT_EQ(thread->Wait(0), WAIT_OK) << "an ended thread stays ended";
  EXPECT_EQ(owned.use_count(), 1);
  thread->Cancel();  // too late, and harmless
}

TEST(Thread, RunsOnWithoutItsObject) {
  CEvent go;
  CEvent ended;
  CThread::Create(
      [&] {
        go.Wait(DEADLINE);
        ended.Set();
      },
      0)
      .reset();
  go.Set();
  EXPECT_EQ(ended.Wait(DEADLINE), WAIT_OK);
}

TEST(Thread, CancellationUnwindsEveryWait) {
  CEvent never;
  const std::array<std::function<void()>, 4> waits{[&] { never.Wait(INFINITE_WAIT); },
                                                   [&] { never.Wait(10 * DEADLINE); },
                                                   [&] {
                                                     CWaiter{&never, &never}.Wait(INFINITE_WAIT);
                                                   },
                                                   [] { KVT::Misc::msleep(10 * DEADLINE); }};
  for (std::size_t i = 0; i < waits.size(); ++i) {
    CEvent entered;
    bool unwound = false;
    bool passed = false;
    struct SGuard {
      bool& m_Unwound;
      ~SGuard() { m_Unwound = true; }
    };
    auto thread = CThread::Create(
        [&] {
          const SGuard guard{unwound};
          entered.Set();
          waits[i]();
          passed = true;
        },
        0);
    ASSERT_EQ(entered.Wait(DEADLINE), WAIT_OK);
    thread->Cancel();
    ASSERT_EQ(thread->Wait(DEADLINE), WAIT_OK) << "wait " << i;
    EXPECT_TRUE(unwound) << "wait " << i;
    EXPECT_FALSE(passed) << "wait " << i;
  }
  // The process-wide lock was given back each time.
  EXPECT_EQ(never.Wait(0), WAIT_TIMED_OUT);
}

TEST(Thread, ExceptionEndsOnlyTheThread) {
  testing::internal::CaptureStderr();
  auto known = CThread::Create([] { throw std::runtime_error("no mdstat today"); }, 0);
  EXPECT_EQ(known->Wait(DEADLINE), WAIT_OK);
  auto unknown = CThread::Create([] { throw 42; }, 0);
  EXPECT_EQ(unknown->Wait(DEADLINE), WAIT_OK);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("no mdstat today"), std::string::npos);
}

TEST(Sleep, LastsAtLeastAsLong) {
  EXPECT_GE(MillisecondsOf([] { KVT::Misc::msleep(30); }), 30U);
}

}  // namespace
