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
  EXPECT_EQ(mutex.Wait(10), WAIT_OK);
  EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(other(50), WAIT_TIMED_OUT); }), 50U);
  mutex.Release();
  EXPECT_EQ(other(0), WAIT_TIMED_OUT);
  mutex.Release();
  EXPECT_EQ(other(0), WAIT_OK);
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
  for (const bool manualReset : {false, true}) {
    CEvent event;
    ASSERT_EQ(event.Init(true, manualReset), INIT_OK);
    event.Set();
    EXPECT_EQ(event.Wait(0), WAIT_OK);
    EXPECT_EQ(event.Wait(0), manualReset ? WAIT_OK : WAIT_TIMED_OUT) << "two signals are one";
    event.Set();
    event.Reset();
    EXPECT_EQ(event.Wait(0), WAIT_TIMED_OUT);
  }
}

TEST(Event, TimedWaitsAndSleepsNeverEndEarly) {
  CEvent event;
  for (const unsigned long milliseconds : {1UL, 20UL, 1050UL})  // the last crosses a whole second
    EXPECT_GE(MillisecondsOf([&] { EXPECT_EQ(event.Wait(milliseconds), WAIT_TIMED_OUT); }), milliseconds);
  EXPECT_GE(MillisecondsOf([] { KVT::Misc::msleep(30); }), 30U);
}

TEST(Waiter, LowestSignalledWinsAndTheOthersKeepTheirSignal) {
  std::array<CEvent, 3> events;
  CWaiter waiter{&events[0], &events[1], &events[2]};
  EXPECT_EQ(waiter.Wait(0), WAIT_TIMED_OUT);
  for (CEvent* event : {&events[2], &events[1], &events[0]}) event->Set();
  for (const unsigned int place : {1U, 2U, 3U}) EXPECT_EQ(waiter.Wait(INFINITE_WAIT), place);
  CWaitInterval interval(20);
  EXPECT_EQ(waiter.Wait(interval.Remaining()), WAIT_TIMED_OUT);
  EXPECT_EQ(interval.Remaining(), 0U);
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
  std::atomic<int> woken{0};
  std::array<std::thread, 2> bystanders;
  for (auto& thread : bystanders)
    thread = std::thread([&] { woken += CWaiter{&never, &quit}.Wait(DEADLINE) == 2 ? 1 : 0; });
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
  EXPECT_EQ(woken, 2) << "a manual-reset event wakes all";
}

TEST(Thread, WaitTellsWhetherItRunsAndTheBodyIsGoneAtItsEnd) {
  CEvent go;
  const auto owned = std::make_shared<int>(0);
  auto thread = CThread::Create([&go, owned] { go.Wait(DEADLINE); }, 0);
  EXPECT_EQ(thread->Wait(0), WAIT_TIMED_OUT);
  go.Set();
  EXPECT_EQ(thread->Wait(DEADLINE), WAIT_OK);
  EXPECT_EQ(thread->Wait(0), WAIT_OK) << "an ended thread stays ended";
  EXPECT_EQ(owned.use_count(), 1);
  thread->Cancel();  // too late, and harmless
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
    bool passed = false;
    auto owned = std::make_shared<int>(0);
    const std::weak_ptr<int> left = owned;
    const auto body = [&] {
      const auto onTheStack = std::move(owned);
      entered.Set();
      waits[i]();
      passed = true;
    };
    const auto thread = CThread::Create(body, 0);
    ASSERT_EQ(entered.Wait(DEADLINE), WAIT_OK);
    thread->Cancel();
    ASSERT_EQ(thread->Wait(DEADLINE), WAIT_OK) << "wait " << i;
    EXPECT_TRUE(left.expired()) << "wait " << i << " was not unwound";
    EXPECT_FALSE(passed) << "wait " << i;
  }
  // The process-wide lock was given back each time.
  EXPECT_EQ(never.Wait(0), WAIT_TIMED_OUT);
}

TEST(Thread, ExceptionEndsOnlyTheThread) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(CThread::Create([] { throw 42; }, 0)->Wait(DEADLINE), WAIT_OK);
  EXPECT_EQ(CThread::Create([] { throw std::runtime_error("no mdstat today"); }, 0)->Wait(DEADLINE), WAIT_OK);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("no mdstat today"), std::string::npos);
}

}  // namespace
