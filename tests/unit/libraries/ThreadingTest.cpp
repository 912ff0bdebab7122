#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <future>
#include <stdexcept>

#include "KVT/Threading.h"
#include "tests/support/FailingCalls.h"
#include "tests/support/TestInstance.h"

using namespace KVT::Threading;
using NAMESPACE_piRVX::CFailingCall;

namespace {

/// Longer than any wait here may take; a test that needs it has failed.
constexpr unsigned long DEADLINE = 10'000;

TEST(FastMutex, HolderTakesItAgainAndOthersWaitForEveryRelease) {
  for (const bool refused : {false, true}) {  // what the system refuses is told, and works all the same
    const CFailingCall refusal(CFailingCall::PREPARE_LOCK, refused ? 0 : -1);
    Native_OS::CFastMutex mutex;
    EXPECT_EQ(mutex.Init(), refused ? -EAGAIN : INIT_OK);
    EXPECT_EQ(mutex.Wait(), WAIT_OK);
    EXPECT_EQ(mutex.Wait(10), WAIT_OK);
    EXPECT_EQ(std::async(std::launch::async, [&] { return mutex.Wait(50); }).get(), WAIT_TIMED_OUT);
    mutex.Release();
    EXPECT_FALSE(NAMESPACE_piRVX::CTestInstance::IsFree(mutex));
    mutex.Release();
    EXPECT_TRUE(NAMESPACE_piRVX::CTestInstance::IsFree(mutex));
  }
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

TEST(Waiter, LowestSignalledWinsAndATimedWaitNeverEndsEarly) {
  std::array<CEvent, 3> events;
  CWaiter waiter{&events[0], &events[1], &events[2]};
  for (CEvent& event : events) event.Set();
  for (const unsigned int place : {1U, 2U, 3U}) EXPECT_EQ(waiter.Wait(INFINITE_WAIT), place);
  for (const unsigned int milliseconds : {1U, 1999U}) {  // the last carries into another second
    CWaitInterval interval(milliseconds);
    EXPECT_EQ(waiter.Wait(interval.Remaining()), WAIT_TIMED_OUT);
    EXPECT_EQ(interval.Remaining(), 0U);
  }
}

// Ping-pong over two events, past bystanders that wait for another one: a wake-up lost between look and
// sleep, or spent on the wrong thread, would stop it.
TEST(Waiter, LosesNoWakeUp) {
  constexpr int ROUNDS = 5000;
  CEvent ping, pong, never, quit;
  ASSERT_EQ(quit.Init(false, true), INIT_OK);
  const auto stand = [&] { return CWaiter{&never, &quit}.Wait(DEADLINE); };
  std::array bystanders{std::async(std::launch::async, stand), std::async(std::launch::async, stand)};
  const auto play = [&never](CEvent& own, CEvent& other) {
    int round = 0;
    for (; round < ROUNDS && CWaiter{&never, &own}.Wait(DEADLINE) == 2; ++round) other.Set();
    return round;
  };
  const auto answering = std::async(std::launch::async, [&] { return play(ping, pong); });
  ping.Set();
  EXPECT_EQ(play(pong, ping), ROUNDS);
  quit.Set();
  for (auto& bystander : bystanders) EXPECT_EQ(bystander.get(), 2U) << "a manual-reset event wakes all";
}

TEST(Thread, WaitTellsWhetherItRunsAndTheBodyIsGoneAtItsEnd) {
  CEvent go;
  const auto owned = std::make_shared<int>(0);
  sigset_t inside, here;
  const auto look = [](sigset_t& mask) { pthread_sigmask(SIG_SETMASK, nullptr, &mask); };
  const auto thread = CThread::Create([&, owned] { look(inside), go.Wait(DEADLINE); }, 0);
  EXPECT_EQ(thread->Wait(0), WAIT_TIMED_OUT);
  go.Set();
  EXPECT_EQ(thread->Wait(DEADLINE), WAIT_OK);
  EXPECT_EQ(thread->Wait(0), WAIT_OK) << "an ended thread stays ended";
  EXPECT_EQ(owned.use_count(), 1);
  thread->Cancel();  // too late, and harmless
  look(here);
  for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGCHLD, SIGALRM, SIGPIPE, SIGRTMAX})
    EXPECT_TRUE(sigismember(&inside, signal) == 1 && sigismember(&here, signal) == 0) << signal;
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
    EXPECT_EQ(sigismember(&inside, fault), 0) << fault;
}

TEST(Thread, CancellationUnwindsEveryWait) {
  CEvent never, entered;
  for (const unsigned long time : {INFINITE_WAIT, 10 * DEADLINE}) {
    const auto owned = std::make_shared<int>(0);
    const auto body = [&] {
      const auto onTheStack = owned;
      entered.Set();
      CWaiter{&never, &never}.Wait(time);
    };
    const auto thread = CThread::Create(body, 0);
    ASSERT_EQ(entered.Wait(DEADLINE), WAIT_OK);
    thread->Cancel();
    ASSERT_EQ(thread->Wait(DEADLINE), WAIT_OK);
    EXPECT_EQ(owned.use_count(), 1) << "not unwound";
  }
}

TEST(Thread, ExceptionEndsOnlyTheThread) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(CThread::Create([] { throw 42; }, 0)->Wait(DEADLINE), WAIT_OK);
  EXPECT_EQ(CThread::Create([] { throw std::runtime_error("no mdstat today"); }, 0)->Wait(DEADLINE), WAIT_OK);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("no mdstat today"), std::string::npos);
}

}  // namespace
