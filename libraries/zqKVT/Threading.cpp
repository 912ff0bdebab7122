#include "KVT/Threading.h"

#include <cxxabi.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <mutex>
#include <system_error>

#include "libraries/common/CancellationGuard.h"
#include "libraries/zqKVT/ErrorLog.h"

#if defined(__SANITIZE_THREAD__)
#define ZQ_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZQ_THREAD_SANITIZER
#endif
#endif
#ifdef ZQ_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace KVT::Threading {
namespace {

// One lock and one condition for all events of the process: whoever waits for several of them looks at all in
// one step, and no signal can be set between the look and the sleep. Events are rare; a spare wake-up is
// cheap.
pthread_mutex_t g_SignalLock = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_SignalSet = PTHREAD_COND_INITIALIZER;

class CSignalGuard {
 public:
  CSignalGuard() { pthread_mutex_lock(&g_SignalLock); }
  explicit CSignalGuard(std::adopt_lock_t) {}
  ~CSignalGuard() { pthread_mutex_unlock(&g_SignalLock); }
  CSignalGuard(const CSignalGuard&) = delete;
  CSignalGuard& operator=(const CSignalGuard&) = delete;
};

/// The moment on the monotonic clock that lies so many milliseconds ahead.
timespec DeadlineIn(unsigned long milliseconds) {
  timespec end{};
  clock_gettime(CLOCK_MONOTONIC, &end);
  end.tv_sec += static_cast<time_t>(milliseconds / 1000);
  end.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000;
  if (end.tv_nsec >= 1'000'000'000) {
    ++end.tv_sec;
    end.tv_nsec -= 1'000'000'000;
  }
  return end;
}

/// Waits until `consume`, called with the signal lock held, returns a place other than 0. A cancellation
/// point; the lock is held while the stack unwinds to the guard.
template <class TConsume>
unsigned int WaitForSignal(unsigned long milliseconds, TConsume consume) {
  const timespec end = milliseconds == 0 ? timespec{} : DeadlineIn(milliseconds);
  const CSignalGuard guard;
  for (int error = 0;;) {
    if (const unsigned int place = consume(); place != 0) return place;
    // A look that does not wait goes without the kernel, which would take it for a wait of its shortest time.
    if (error == ETIMEDOUT || milliseconds == 0) return WAIT_TIMED_OUT;
    error = milliseconds == INFINITE_WAIT
                ? pthread_cond_wait(&g_SignalSet, &g_SignalLock)
                : pthread_cond_clockwait(&g_SignalSet, &g_SignalLock, CLOCK_MONOTONIC, &end);
  }
}

int LockUntil(pthread_mutex_t* mutex, const timespec& end) {
#ifdef ZQ_THREAD_SANITIZER  // it does not know pthread_mutex_clocklock and has to be told
  constexpr unsigned int KIND = __tsan_mutex_write_reentrant | __tsan_mutex_try_lock;
  __tsan_mutex_pre_lock(mutex, KIND);
  const int error = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
  __tsan_mutex_post_lock(mutex, error == 0 ? KIND : KIND | __tsan_mutex_try_lock_failed, 1);
  return error;
#else
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &end);
#endif
}

int MakeRecursive(pthread_mutex_t& mutex) {
  pthread_mutexattr_t attributes;
  if (const int error = pthread_mutexattr_init(&attributes); error != 0) return error;
  int error = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  if (error == 0) error = pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return error;
}

/// Keeps the server's signals from a thread that is made while it lives: it inherits the mask. The signals of
/// a thread's own faults stay, since blocking them would end the process without a word.
class CServerSignalsBlocked {
 public:
  CServerSignalsBlocked() {
    sigset_t signals;
    sigfillset(&signals);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) sigdelset(&signals, fault);
    pthread_sigmask(SIG_SETMASK, &signals, &m_Before);
  }
  ~CServerSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
  CServerSignalsBlocked(const CServerSignalsBlocked&) = delete;
  CServerSignalsBlocked& operator=(const CServerSignalsBlocked&) = delete;

 private:
  sigset_t m_Before{};
};

}  // namespace

namespace Native_OS {

CFastMutex::CFastMutex() : m_Error(MakeRecursive(m_Mutex)) {
  // Requests take the lock also after they were told that it could not be made.
  if (m_Error != 0) m_Mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
}

CFastMutex::~CFastMutex() { pthread_mutex_destroy(&m_Mutex); }

int CFastMutex::Init() { return m_Error == 0 ? INIT_OK : -m_Error; }

unsigned int CFastMutex::Wait(unsigned long milliseconds) {
  const int error = milliseconds == INFINITE_WAIT ? pthread_mutex_lock(&m_Mutex)
                    : milliseconds == 0           ? pthread_mutex_trylock(&m_Mutex)
                                                  : LockUntil(&m_Mutex, DeadlineIn(milliseconds));
  return error == 0 ? WAIT_OK : WAIT_TIMED_OUT;
}

void CFastMutex::Release() { pthread_mutex_unlock(&m_Mutex); }

}  // namespace Native_OS

CEvent::CEvent() = default;

int CEvent::Init(bool signalled, bool manualReset) {
  // The lock is held for microseconds, but a process that was forked meanwhile never gets it. Whoever sets
  // up is told so; a later Set or Wait would hang.
  constexpr unsigned long LONGEST_HOLD = 5000;
  if (const int error = LockUntil(&g_SignalLock, DeadlineIn(LONGEST_HOLD)); error != 0) return -error;
  const CSignalGuard guard(std::adopt_lock);
  m_Signalled = signalled;
  m_ManualReset = manualReset;
  if (signalled) pthread_cond_broadcast(&g_SignalSet);
  return INIT_OK;
}

void CEvent::Set() {
  const CSignalGuard guard;
  m_Signalled = true;
  pthread_cond_broadcast(&g_SignalSet);
}

void CEvent::Reset() {
  const CSignalGuard guard;
  m_Signalled = false;
}

bool CEvent::Consume() {
  const bool signalled = m_Signalled;
  m_Signalled = signalled && m_ManualReset;
  return signalled;
}

unsigned int CEvent::Wait(unsigned long milliseconds) {
  const auto consume = [this] { return Consume() ? 1U : 0U; };
  return WaitForSignal(milliseconds, consume) == 1 ? WAIT_OK : WAIT_TIMED_OUT;
}

CWaiter::CWaiter(std::initializer_list<CEvent*> events) : m_Events(events) {}

unsigned int CWaiter::Wait(unsigned long milliseconds) {
  return WaitForSignal(milliseconds, [this] {
    const auto first =
        std::find_if(m_Events.begin(), m_Events.end(), [](CEvent* event) { return event->Consume(); });
    return first == m_Events.end() ? 0U : static_cast<unsigned int>(first - m_Events.begin()) + 1;
  });
}

CWaitInterval::CWaitInterval(unsigned long milliseconds) { Restart(milliseconds); }

void CWaitInterval::Restart(unsigned long milliseconds) {
  constexpr unsigned long LONGEST = 100UL * 365 * 24 * 3600 * 1000;  // more would overflow the clock
  m_End = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min(milliseconds, LONGEST));
}

unsigned long CWaitInterval::Remaining() const {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_End - std::chrono::steady_clock::now());
  return left.count() > 0 ? static_cast<unsigned long>(left.count()) : 0;
}

/// Shared by the object and its thread, so that either may go first.
struct CThread::SState {
  boost::function<void()> m_Body;
  CEvent m_Ended;
  std::mutex m_Lock;
  bool m_Running{true};  ///< guarded by m_Lock; m_Thread is valid while it holds
  pthread_t m_Thread{};

  void Run();
  void End();
};

/// The body and what it owns are destroyed before the end is reported: the module they come from may be
/// unloaded right after.
void CThread::SState::End() {
  const Internal::CCancellationGuard noCancel;
  m_Body.clear();
  {
    const std::lock_guard guard(m_Lock);
    m_Running = false;
  }
  m_Ended.Set();
}

// A cancellation arrives at the handler without an object, which the sanitizer takes for a mistake.
__attribute__((no_sanitize("null"))) void CThread::SState::Run() {
  struct SEnd {
    SState& m_State;
    ~SEnd() { m_State.End(); }
  };
  const SEnd end{*this};
  try {
    m_Body();
  } catch (const abi::__forced_unwind&) {
    throw;  // the cancellation goes on
  } catch (const std::exception& exception) {
    Internal::LogToolkitError("Threading", __LINE__,
                              std::string("thread ended by an exception: ") + exception.what());
  } catch (...) {  // not a cancellation, that was above
    Internal::LogToolkitError("Threading", __LINE__, "thread ended by an exception of unknown type");
  }
}

CThread::CThread(std::shared_ptr<SState> state) : m_State(std::move(state)) {}
CThread::~CThread() = default;

std::unique_ptr<CThread> CThread::Create(boost::function<void()> body, unsigned int /*flags*/) {
  auto state = std::make_shared<SState>();
  state->m_Body = std::move(body);
  if (const int result = state->m_Ended.Init(false, true); result != INIT_OK)
    throw std::system_error(-result, std::generic_category(), "CEvent::Init");
  std::unique_ptr<CThread> thread(new CThread(state));
  auto shared = std::make_unique<std::shared_ptr<SState>>(state);
  const auto run = [](void* argument) -> void* {
    const std::unique_ptr<std::shared_ptr<SState>> own(static_cast<std::shared_ptr<SState>*>(argument));
    (*own)->Run();
    return nullptr;
  };
  const CServerSignalsBlocked noSignals;
  if (const int error = pthread_create(&state->m_Thread, nullptr, run, shared.get()); error != 0)
    throw std::system_error(error, std::generic_category(), "pthread_create");
  shared.release();  // NOLINT(bugprone-unused-return-value): the thread owns it now
  pthread_detach(state->m_Thread);
  return thread;
}

unsigned int CThread::Wait(unsigned long milliseconds) const { return m_State->m_Ended.Wait(milliseconds); }

void CThread::Cancel() {
  const std::lock_guard guard(m_State->m_Lock);
  if (m_State->m_Running) pthread_cancel(m_State->m_Thread);
}

}  // namespace KVT::Threading
