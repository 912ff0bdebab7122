#pragma once
/// @file
/// The toolkit's threads, locks and events. Every wait counts milliseconds on the monotonic clock.

#include <pthread.h>

#include <atomic>
#include <boost/function.hpp>
#include <chrono>
#include <initializer_list>
#include <memory>
#include <vector>

#include "KVT/Api.h"

namespace KVT::Threading {

/// Time-out of a wait that ends only with success.
inline constexpr unsigned long INFINITE_WAIT = 0xFFFFFFFFUL;
/// Result of a wait: the lock was obtained, the event was signalled, the thread has ended.
inline constexpr unsigned int WAIT_OK = 0;
/// Result of a wait whose time ran out; of a thread's wait: it still runs.
inline constexpr unsigned int WAIT_TIMED_OUT = 130;
/// Result of `Init` when it succeeded. Anything else is the system's error number (errno.h), negated.
inline constexpr int INIT_OK = 1;

namespace Native_OS {

/// Mutex that its holder may take again; every take needs its own release. Usable from construction on, also
/// when `Init` tells of a failure.
class ZQ_API ZQ_CAPABILITY("mutex") CFastMutex {
 public:
  CFastMutex();
  ~CFastMutex();
  CFastMutex(const CFastMutex&) = delete;
  CFastMutex& operator=(const CFastMutex&) = delete;

  /// Tells whether the system could make the mutex; may be called again, by any thread. Returns INIT_OK or
  /// the error, negated.
  int Init();
  /// Takes the mutex, waiting at most `milliseconds` (0: do not wait). Returns WAIT_OK or WAIT_TIMED_OUT.
  unsigned int Wait(unsigned long milliseconds = INFINITE_WAIT) ZQ_NO_THREAD_SAFETY_ANALYSIS;
  /// Gives back one take of the calling thread.
  void Release() ZQ_NO_THREAD_SAFETY_ANALYSIS;

 private:
  pthread_mutex_t m_Mutex;
  int m_Error;  ///< of the construction; 0: none
};

}  // namespace Native_OS

/// Event that threads wait for. Auto-reset: one wait consumes the signal. Manual-reset: it stays set.
class ZQ_API CEvent {
 public:
  CEvent();
  ~CEvent() = default;
  CEvent(const CEvent&) = delete;
  CEvent& operator=(const CEvent&) = delete;

  /// Sets the first state and the kind of the event. Returns INIT_OK, or an error negated: -ETIMEDOUT when
  /// the lock of all events was not given back within five seconds. The event is as it was then.
  int Init(bool signalled, bool manualReset);
  /// Signals the event and wakes its waiters.
  void Set();
  /// Takes the signal back.
  void Reset();
  /// Waits for the signal; returns WAIT_OK (an auto-reset event is consumed) or WAIT_TIMED_OUT.
  unsigned int Wait(unsigned long milliseconds);

 private:
  friend class CWaiter;
  bool Consume();  ///< With the process-wide signal lock held: takes the signal if there is one.

  bool m_Signalled{false};
  bool m_ManualReset{false};
};

/// Waits for the first of several events. The events must outlive the waiter.
class ZQ_API CWaiter {
 public:
  CWaiter(std::initializer_list<CEvent*> events);
  /// Returns the 1-based place of the signalled event (the lowest when several are) or WAIT_TIMED_OUT.
  unsigned int Wait(unsigned long milliseconds);

 private:
  std::vector<CEvent*> m_Events;
};

/// A span of time that starts at construction and at each restart.
class ZQ_API CWaitInterval {
 public:
  explicit CWaitInterval(unsigned long milliseconds);
  /// Begins anew with the given length in milliseconds.
  void Restart(unsigned long milliseconds);
  /// Milliseconds until the end, 0 when it has passed (rounded up, so that a wait never ends early).
  unsigned long Remaining() const;

 private:
  std::chrono::steady_clock::time_point m_End;
};

/// A thread. Destroying the object does not stop the thread: it runs on by itself.
class ZQ_API CThread {
 public:
  /// Starts a thread that runs `body`. `flags` is reserved and 0. Throws std::system_error when the system
  /// has no thread left. An exception that leaves `body` is written to the error log and ends the thread.
  /// The thread blocks every signal but those of its own faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT,
  /// SIGTRAP), so that no handler of the server's runs on it; the caller's signal mask stays as it is.
  static std::unique_ptr<CThread> Create(boost::function<void()> body, unsigned int flags);
  ~CThread();
  CThread(const CThread&) = delete;
  CThread& operator=(const CThread&) = delete;

  /// Waits for the thread's end; returns WAIT_OK when it has ended, WAIT_TIMED_OUT while it still runs.
  unsigned int Wait(unsigned long milliseconds) const;
  /// Asks the thread to end at its next cancellation point, unwinding its stack.
  void Cancel();

 private:
  struct SState;
  explicit CThread(std::shared_ptr<SState> state);
  std::shared_ptr<SState> m_State;
};

}  // namespace KVT::Threading
